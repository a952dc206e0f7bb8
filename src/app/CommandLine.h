#pragma once

#include <QString>
#include <QStringList>

#include <optional>

// What the command line asks for. Parsed before any Qt application object exists, because the
// choice decides which kind of application (GUI, offscreen or none) is made.
struct CommandLine {
    enum class Action { run, help, version, shots, transcribe, cleanup, quit, error };
    Action action = Action::run;
    QString argument;        // --shots DIR, --transcribe FILE, --cleanup MODE
    bool partials = false;   // --transcribe ... --partials
    bool openSettings = false;  // --settings: run (or reach the running one) and show Settings
    QString locale;          // --locale ID
    QString error;           // for Action::error

    static CommandLine parse(const QStringList& arguments);
    static QString helpText();
};
