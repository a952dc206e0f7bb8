#!/usr/bin/env bash
# The Debian package as a user would install it: made from this build with CPack into the test's
# sandbox, its file list, its dependencies, the desktop entry and metainfo, the manual page against
# --help, and the unpacked program starting with every library it needs found.
# Usage: check-package.sh BUILD_DIR
set -euo pipefail
build=${1:?usage: check-package.sh BUILD_DIR}
sandbox=${TOLVANE_TEST_SANDBOX:?run through run-test.sh}
out=$sandbox/package root=$sandbox/root
fail() { echo "check-package: $*" >&2; exit 1; }

cpack --config "$build/CPackConfig.cmake" -B "$out" >"$sandbox/cpack.log" 2>&1 || { cat "$sandbox/cpack.log" >&2; fail "cpack failed"; }
debs=("$out"/tolvane_*_amd64.deb)
[ ${#debs[@]} -eq 1 ] && [ -f "${debs[0]}" ] || fail "expected one tolvane_<version>_amd64.deb in $out"
deb=${debs[0]}

files=$(dpkg-deb -c "$deb" | awk '{print $6}')
expected=(
  ./usr/bin/tolvane
  ./usr/share/applications/tolvane.desktop
  ./usr/share/icons/hicolor/scalable/apps/tolvane.svg
  ./usr/share/metainfo/org.tolvane.Tolvane.metainfo.xml
  ./usr/share/man/man1/tolvane.1.gz
  ./usr/share/doc/tolvane/README.md
  ./usr/share/doc/tolvane/copyright
  ./usr/share/doc/tolvane/changelog.gz
  ./usr/lib/udev/rules.d/60-tolvane-uinput.rules
)
for size in 16 22 24 32 48 64 128 256; do
  expected+=("./usr/share/icons/hicolor/${size}x${size}/apps/tolvane.png")
done
for f in "${expected[@]}"; do
  grep -qxF "$f" <<<"$files" || fail "the package lacks $f"
done

depends=$(dpkg-deb -f "$deb" Depends)
for dep in pocketsphinx-en-us libqt6core6 libpocketsphinx3 libevdev2 libudev1 libc6; do
  grep -q "\b$dep\b" <<<"$depends" || fail "Depends lacks $dep: $depends"
done

dpkg-deb -x "$deb" "$root"
missing=$(ldd "$root/usr/bin/tolvane" | grep 'not found' || true)
[ -z "$missing" ] || fail "libraries not found: $missing"
version=$("$root/usr/bin/tolvane" --version)
[[ $version =~ ^Tolvane\ [0-9]+\.[0-9]+\.[0-9]+$ ]] || fail "--version printed: $version"

# The entry starts the installed program, for itself and for each action.
desktop=$root/usr/share/applications/tolvane.desktop
[ "$(grep -c '^Exec=/usr/bin/tolvane' "$desktop")" -eq 3 ] || fail "Exec lines of the desktop entry: $(grep '^Exec' "$desktop")"
appstreamcli validate --no-net "$root/usr/share/metainfo/org.tolvane.Tolvane.metainfo.xml" >/dev/null \
  || fail "the metainfo does not validate"

# Every option --help names is in the manual page.
man=$(zcat "$root/usr/share/man/man1/tolvane.1.gz" | sed 's/\\-/-/g')
for option in $("$root/usr/bin/tolvane" --help | grep -o -- '--[a-z]*' | sort -u); do
  grep -q -- "$option" <<<"$man" || fail "the manual page lacks $option"
done
echo "check-package: $(basename "$deb"), ${#expected[@]} files checked"
