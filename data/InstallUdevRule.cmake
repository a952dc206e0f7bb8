# Installs the udev rule that lets the input group write to /dev/uinput (run by `cmake --install`
# and CPack; TOLVANE_UDEV_RULE and TOLVANE_UDEV_RULES_DIR are set before it). udev reads rules only
# from /usr/lib and /etc: the prefix /usr (the package) ships it under /usr/lib; any other prefix
# puts it under /etc when that is writable (as root), and otherwise says how to add it.
set(rules "${TOLVANE_UDEV_RULES_DIR}")
if(NOT rules)
  if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(rules /usr/lib/udev/rules.d)
  else()
    set(rules /etc/udev/rules.d)
  endif()
endif()
set(target "$ENV{DESTDIR}${rules}")
execute_process(COMMAND mkdir -p "${target}" ERROR_QUIET)
execute_process(COMMAND test -w "${target}" RESULT_VARIABLE unwritable)
if(unwritable)
  message(STATUS "Skipped the udev rule (${target} is not writable); as root: install -m 644 ${TOLVANE_UDEV_RULE} ${rules}/")
else()
  file(INSTALL "${TOLVANE_UDEV_RULE}" DESTINATION "${rules}")
endif()
