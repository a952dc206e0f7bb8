#pragma once

#include <QString>

// The one logging call. Each line goes to <data>/Tolvane/diagnostic.log as
//   2026-03-14T09:26:53.589Z [Preferences:118] prefs: startAtLogin = true
// and the bare message is mirrored to standard error, both by one writer thread. Callable from any
// thread; the caller never waits for the disk or the terminal, and nothing here throws.
namespace Diagnostics {

// The call site comes from the builtins rather than std::source_location, which clang 14 (the
// fuzzing compiler) cannot provide with Debian's libstdc++.
void log(const QString& message, const char* file = __builtin_FILE(), int line = __builtin_LINE());

// The "Name:57" field for a source path: last path component without its extension.
QString sourceName(const char* file);

// "true" or "false", as log lines spell flags.
inline QString boolText(bool b) { return b ? QStringLiteral("true") : QStringLiteral("false"); }

// Where the log lives (creates the folder the first time it is asked).
QString logFilePath();

// Whether lines are also mirrored to standard error (on by default). Command-line modes whose
// standard error is their user interface turn it off; the file still gets every line.
void setMirrored(bool on);

// Blocks until every line handed over so far is on disk. For tests and orderly shutdown.
void flush();

}  // namespace Diagnostics
