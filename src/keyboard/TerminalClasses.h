#pragma once

#include <QString>
#include <QStringList>

// Terminal emulators paste with Ctrl+Shift+V (Ctrl+V is the tty's literal-next there). A window is a
// terminal when its WM_CLASS instance or class name is known, compared without case.
namespace TerminalClasses {

const QStringList& builtIn();
// `extra`: the user's comma-separated list (Settings::terminalClasses).
bool isTerminal(const QString& instanceName, const QString& className, const QString& extra);

}  // namespace TerminalClasses
