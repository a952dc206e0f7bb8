#include "keyboard/TerminalClasses.h"

namespace TerminalClasses {

const QStringList& builtIn()
{
    static const QStringList names = {
        QStringLiteral("xterm"),          QStringLiteral("uxterm"),
        QStringLiteral("urxvt"),          QStringLiteral("rxvt"),
        QStringLiteral("gnome-terminal"), QStringLiteral("gnome-terminal-server"),
        QStringLiteral("kgx"),            QStringLiteral("konsole"),
        QStringLiteral("xfce4-terminal"), QStringLiteral("mate-terminal"),
        QStringLiteral("lxterminal"),     QStringLiteral("qterminal"),
        QStringLiteral("terminator"),     QStringLiteral("tilix"),
        QStringLiteral("alacritty"),      QStringLiteral("kitty"),
        QStringLiteral("st"),             QStringLiteral("st-256color"),
        QStringLiteral("terminology"),    QStringLiteral("sakura"),
        QStringLiteral("termite"),        QStringLiteral("wezterm"),
        QStringLiteral("org.wezfurlong.wezterm"), QStringLiteral("foot"),
        QStringLiteral("tilda"),          QStringLiteral("guake"),
        QStringLiteral("yakuake"),        QStringLiteral("cool-retro-term"),
        QStringLiteral("eterm"),          QStringLiteral("x-terminal-emulator"),
        QStringLiteral("terminal"),       QStringLiteral("ghostty"),
        QStringLiteral("com.mitchellh.ghostty"), QStringLiteral("deepin-terminal"),
    };
    return names;
}

bool isTerminal(const QString& instanceName, const QString& className, const QString& extra)
{
    QStringList names = builtIn();
    for (const QString& e : extra.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        const QString t = e.trimmed();
        if (!t.isEmpty())
            names.append(t);
    }
    for (const QString& n : names) {
        if ((!instanceName.isEmpty() && instanceName.compare(n, Qt::CaseInsensitive) == 0)
            || (!className.isEmpty() && className.compare(n, Qt::CaseInsensitive) == 0))
            return true;
    }
    return false;
}

}  // namespace TerminalClasses
