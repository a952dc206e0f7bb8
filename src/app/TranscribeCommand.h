#pragma once

#include <QString>

#include <qcoro/qcorotask.h>

// `tolvane --transcribe FILE [--partials] [--locale ID]`: runs the file through the same path as a
// dictation (capture source → level and conversion → transcriber), as fast as it can be read,
// and prints the transcript; with partials also each partial result (committed text and volatile
// text) as it comes. Needs no display. Failures print one line on standard error.
namespace TranscribeCommand {

struct Options {
    QString file;
    QString locale;  // empty: the language setting
    bool partials = false;
};

// Runs inside an existing QCoreApplication's event loop; the exit status is the task's result.
QCoro::Task<int> run(Options options);

// Makes the application, runs the command and returns the process's exit status.
int main(int argc, char** argv, const Options& options);

}  // namespace TranscribeCommand
