#pragma once

// What every fuzz target shares: a Qt application object, a scratch folder of its own under $TMPDIR,
// a diagnostic log that does not grow without end, and a check that aborts (so libFuzzer keeps the
// input) with the condition that failed.

#include "storage/Diagnostics.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

#include <cstdio>
#include <cstdlib>

namespace FuzzSupport {

inline void check(bool ok, const char* what)
{
    if (!ok) {
        std::fprintf(stderr, "fuzz check failed: %s\n", what);
        std::abort();
    }
}

// Called first for every input.
inline void beginInput()
{
    static int argc = 1;
    static char name[] = "tolvane-fuzz";
    static char* argv[] = {name, nullptr};
    static QCoreApplication* app = [] {
        auto* made = new QCoreApplication(argc, argv);  // lives until the process ends
        QCoreApplication::setApplicationName(QStringLiteral("Tolvane"));
        Diagnostics::setMirrored(false);
        return made;
    }();
    (void)app;
    static unsigned long inputs = 0;
    if (++inputs % 4096 == 0) {
        Diagnostics::flush();
        QFile::remove(Diagnostics::logFilePath());
    }
}

// A folder of this process's own, created on first use.
inline QString scratch(const QString& name)
{
    const QString path = QDir::tempPath() + QStringLiteral("/tolvane-fuzz-%1/").arg(QCoreApplication::applicationPid()) + name;
    QDir().mkpath(path);
    return path;
}

}  // namespace FuzzSupport

#define FUZZ_CHECK(condition) FuzzSupport::check((condition), #condition)
