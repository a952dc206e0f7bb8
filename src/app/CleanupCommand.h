#pragma once

#include <QString>

// `tolvane --cleanup MODE`: reads text on standard input and prints it rewritten in the cleanup mode
// through the local language-model server. Without a usable model it says why on standard error
// and prints the text unchanged, so a pipeline never loses the words. Needs no display.
// Makes its own QCoreApplication; returns the exit code.
int runCleanupCommand(int& argc, char** argv, const QString& mode);
