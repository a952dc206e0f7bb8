#include "app/CommandLine.h"

CommandLine CommandLine::parse(const QStringList& arguments)
{
    CommandLine cl;
    auto fail = [&cl](const QString& message) {
        cl.action = Action::error;
        cl.error = message;
        return cl;
    };
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString& a = arguments[i];
        auto next = [&]() -> std::optional<QString> {
            if (i + 1 < arguments.size() && !arguments[i + 1].startsWith(QLatin1String("--")))
                return arguments[++i];
            return std::nullopt;
        };
        if (a == QLatin1String("--help") || a == QLatin1String("-h")) {
            cl.action = Action::help;
        } else if (a == QLatin1String("--version") || a == QLatin1String("-v")) {
            cl.action = Action::version;
        } else if (a == QLatin1String("--settings")) {
            cl.openSettings = true;
        } else if (a == QLatin1String("--quit")) {
            cl.action = Action::quit;
        } else if (a == QLatin1String("--shots")) {
            cl.action = Action::shots;
            cl.argument = next().value_or(QString());
        } else if (a == QLatin1String("--transcribe")) {
            const auto file = next();
            if (!file)
                return fail(QStringLiteral("--transcribe needs a sound file"));
            cl.action = Action::transcribe;
            cl.argument = *file;
        } else if (a == QLatin1String("--partials")) {
            cl.partials = true;
        } else if (a == QLatin1String("--locale")) {
            const auto id = next();
            if (!id)
                return fail(QStringLiteral("--locale needs a language such as en-US"));
            cl.locale = *id;
        } else if (a == QLatin1String("--cleanup")) {
            const auto mode = next();
            if (!mode)
                return fail(QStringLiteral("--cleanup needs a mode: raw, tidy, bullets or summary"));
            cl.action = Action::cleanup;
            cl.argument = *mode;
        } else {
            return fail(QStringLiteral("unknown option %1 (try --help)").arg(a));
        }
    }
    return cl;
}

QString CommandLine::helpText()
{
    return QStringLiteral(
        "Usage: tolvane [option]\n"
        "Push-to-talk dictation: hold Left Alt, speak, release; the words are typed where you were typing.\n"
        "Everything runs on this computer.\n"
        "\n"
        "  (no option)             run in the system tray\n"
        "  --settings              run, and open the Settings window\n"
        "  --quit                  ask the running Tolvane to quit\n"
        "  --transcribe FILE       transcribe a sound file and print the text\n"
        "      --partials          also print each partial result as it comes\n"
        "      --locale ID         language of the speech, such as en-US\n"
        "  --cleanup MODE          rewrite standard input in a cleanup mode (raw, tidy, bullets, summary)\n"
        "                          through the local language-model server and print it\n"
        "  --shots [DIR]           render the Settings panes and the About window to PNG files\n"
        "  --version               print the version\n"
        "  --help                  print this help\n");
}
