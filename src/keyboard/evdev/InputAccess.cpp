#include "keyboard/evdev/InputAccess.h"

#include <QFile>

#include <grp.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace InputAccess {

namespace {
constexpr const char* ruleName = "60-tolvane-uinput.rules";
constexpr const char* ruleText = "KERNEL==\"uinput\", SUBSYSTEM==\"misc\", GROUP=\"input\", MODE=\"0660\", OPTIONS+=\"static_node=uinput\"";

bool ruleInstalled()
{
    for (const char* dir : {"/etc/udev/rules.d/", "/usr/lib/udev/rules.d/", "/lib/udev/rules.d/", "/run/udev/rules.d/"}) {
        if (QFile::exists(QLatin1String(dir) + QLatin1String(ruleName)))
            return true;
    }
    return false;
}

bool inInputGroup()
{
    const group* input = getgrnam("input");
    if (!input)
        return false;
    std::vector<gid_t> groups(static_cast<size_t>(getgroups(0, nullptr)));
    groups.resize(static_cast<size_t>(getgroups(static_cast<int>(groups.size()), groups.data())));
    return getegid() == input->gr_gid || std::find(groups.begin(), groups.end(), input->gr_gid) != groups.end();
}
}  // namespace

bool waylandSession()
{
    return !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") || qEnvironmentVariable("XDG_SESSION_TYPE") == QLatin1String("wayland");
}

bool canWriteUinput() { return access("/dev/uinput", W_OK) == 0; }

QString uinputCommand()
{
    if (!ruleInstalled())
        return QStringLiteral("echo '%1' | sudo tee /etc/udev/rules.d/%2 && sudo udevadm trigger --name-match=uinput")
            .arg(QLatin1String(ruleText), QLatin1String(ruleName));
    if (!inInputGroup())
        return QLatin1String(inputGroupCommand) + QStringLiteral(" (then log out and in)");
    return QStringLiteral("sudo udevadm trigger --name-match=uinput");
}

QString chordSpaceNotice()
{
    if (!waylandSession() || canWriteUinput())
        return {};
    return QStringLiteral("In this Wayland session the Space of the chord also reaches the application, because "
                          "Tolvane cannot write to /dev/uinput. To fix it, run: ")
        + uinputCommand();
}

}  // namespace InputAccess
