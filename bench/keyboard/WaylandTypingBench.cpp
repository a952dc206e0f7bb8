// Typing in a Wayland session, in a headless sway of its own with foot as the client, its program
// `cat` writing down every byte it receives: the typing rate through the virtual keyboard, a long
// text typed in dictation-sized pieces, from the first key sent to the last byte in foot, and
// whether every character arrived in order. (Key release → text in foot for the real program is
// bench_dictation_latency --wayland.)
//
// Run: build/bench/keyboard/bench_wayland_typing [characters]
// It re-runs itself under tests/support/run-test.sh for its own XDG folders.
#include "BenchSpeech.h"
#include "keyboard/wayland/WaylandConnection.h"
#include "keyboard/wayland/WaylandTextInjector.h"
#include "support/Sway.h"
#include "support/TestSupport.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>

#include <algorithm>
#include <cstdio>

namespace {

constexpr double rateTarget = 2000;  // characters per second

using BenchSpeech::print;

QByteArray terminalBytes()
{
    QFile f(SwaySession::terminalOutput());
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// Dictation-sized pieces (≤ 150 characters, as the finishing pipeline types them) of mixed text.
QStringList pieces(int characters)
{
    const QString words = QStringLiteral("Grüße aus Köln, the café said: 10 € for 2 crêpes! ");
    QStringList out;
    QString piece;
    for (int n = 0; n < characters; ++n) {
        piece += words.at(n % words.size());
        if (piece.size() == 150) {
            out << piece;
            piece.clear();
        }
    }
    if (!piece.isEmpty())
        out << piece;
    return out;
}

bool typingRate(int characters)
{
    WaylandTextInjector injector([](QString* error) {
        *error = QStringLiteral("not used");
        return nullptr;
    });
    // sway's seat has a keyboard only once this one exists; foot asks for it a moment later.
    TestSupport::waitUntil([&] {
        injector.insertText(QStringLiteral("."));
        return TestSupport::waitUntil([] { return !terminalBytes().isEmpty(); }, 300);
    }, 10000);
    TestSupport::waitUntil([] { return false; }, 300);
    const QStringList text = pieces(characters);
    const QByteArray expected = text.join(QString()).toUtf8();
    const qsizetype before = terminalBytes().size();
    QElapsedTimer clock;
    clock.start();
    for (const QString& piece : text)
        injector.insertText(piece);
    const qint64 sentMs = clock.elapsed();
    TestSupport::waitUntil([&] { return terminalBytes().size() - before >= expected.size(); }, 60000);
    const qint64 doneMs = clock.elapsed();
    const QByteArray got = terminalBytes().mid(before);
    const bool exact = got == expected;
    const double rate = characters / (doneMs / 1000.0);
    print(QStringLiteral("\nTyping through zwp_virtual_keyboard_v1 into foot: %1 characters in %2 pieces")
              .arg(characters).arg(text.size()));
    print(QStringLiteral("  sent in %1 ms, all in foot after %2 ms: %3 characters/s (target ≥ %4): %5")
              .arg(sentMs).arg(doneMs).arg(rate, 0, 'f', 0).arg(rateTarget)
              .arg(rate >= rateTarget ? QStringLiteral("met") : QStringLiteral("NOT met")));
    print(QStringLiteral("  arrived exactly, in order: %1%2")
              .arg(exact ? QStringLiteral("yes") : QStringLiteral("NO"))
              .arg(exact ? QString() : QStringLiteral(" (%1 of %2 bytes)").arg(got.size()).arg(expected.size())));
    return exact;
}

}  // namespace

int main(int argc, char** argv)
{
    BenchSpeech::runInSandbox(argc, argv, false);
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments().mid(1);
    const int characters = args.size() > 0 ? std::max(150, args[0].toInt()) : 20000;
    SwaySession sway;
    if (const QString why = sway.start({QStringLiteral("floating_minimum_size 1 x 1"), SwaySession::recordingTerminal()}); !why.isEmpty()) {
        print(QStringLiteral("bench_wayland_typing: ") + why);
        return 1;
    }
    qputenv("WAYLAND_DISPLAY", sway.waylandDisplay().toLocal8Bit());
    qputenv("DISPLAY", sway.x11Display().toLocal8Bit());
    WaylandConnection observer;
    QString error;
    if (!observer.open(&error)
        || !TestSupport::waitUntil([&] { return observer.activeAppId() == QLatin1String("foot") && QFile::exists(SwaySession::terminalOutput()); }, 20000)) {
        print(QStringLiteral("bench_wayland_typing: foot did not get the focus ") + error);
        return 1;
    }
    print(QStringLiteral("Machine: %1 cores (other work on the machine shows in the times).").arg(QThread::idealThreadCount()));
    return typingRate(characters) ? 0 : 1;
}
