// Typing in a Wayland session, in a headless sway of its own with foot as the client, its program
// `cat` writing down every byte it receives:
//   - the typing rate through the virtual keyboard: a long text typed in dictation-sized pieces,
//     from the first key sent to the last byte in foot, and whether every character arrived in order;
//   - the real tolvane: key release → the dictated text complete in foot, over `runs` dictations
//     (median and 95th percentile), keys through a pipe keyboard, speech through a pipe microphone.
//
// Run: build/bench/keyboard/bench_wayland_typing [runs] [characters]
// It re-runs itself under tests/support/run-test.sh for its own XDG folders.
#include "BenchSpeech.h"
#include "keyboard/wayland/WaylandConnection.h"
#include "keyboard/wayland/WaylandTextInjector.h"
#include "storage/Preferences.h"
#include "storage/TranscriptStore.h"
#include "support/KeyPipe.h"
#include "support/Sound.h"
#include "support/Speech.h"
#include "support/Sway.h"
#include "support/TestSupport.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QThread>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace {

constexpr double rateTarget = 2000;  // characters per second
const QString ready = QStringLiteral("bootstrap: READY — hold ⌥ to dictate, or ⌥+Space to toggle.");
const QStringList sentences = {
    QStringLiteral("please send the quarterly report to the finance team before friday afternoon"),
    QStringLiteral("remind me to water the plants and pick up the dry cleaning tomorrow"),
    QStringLiteral("the train to the city leaves at seven fifteen from platform four"),
};

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

bool releaseToText(SwaySession& sway, int runs)
{
    AudioTest::PipeMicrophone microphone;
    if (const QString why = microphone.start(); !why.isEmpty()) {
        print(QStringLiteral("bench_wayland_typing: ") + why);
        return false;
    }
    KeyPipe keyboard(AudioTest::sandboxPath(QStringLiteral("keyboard")));
    QProcess tolvane;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    const QMap<QString, QString> session = sway.clientEnvironment();
    for (auto it = session.begin(); it != session.end(); ++it)
        env.insert(it.key(), it.value());
    env.insert(QStringLiteral("TOLVANE_INPUT_DEVICES"), keyboard.path());
    tolvane.setProcessEnvironment(env);
    Preferences::shared().setCleanupMode(CleanupMode::raw);
    Preferences::shared().setValue(Settings::noTrayExplained, true);
    const TestSupport::LogMark started;
    tolvane.start(TestSupport::tolvaneBinary(), {});
    if (!started.waitFor(ready, 60000) || !keyboard.connect()) {
        print(QStringLiteral("bench_wayland_typing: tolvane did not become ready"));
        return false;
    }
    std::vector<QByteArray> speech;
    for (const QString& s : sentences)
        speech.push_back(AudioTest::pcm16(SpeechTest::synthesize(s)));
    print(QStringLiteral("\nThe real tolvane in sway, dictating into foot: key release → the text complete in foot (ms)"));
    print(QStringLiteral("  run  chars  release→text(ms)"));
    std::vector<double> latencies;
    for (int run = 0; run <= runs; ++run) {  // run 0 warms up and is not counted
        const TestSupport::LogMark mark;
        if (!keyboard.press(56) || !mark.waitFor(QStringLiteral("dictation: audio + transcriber running"))) {
            print(QStringLiteral("  %1    FAILED: the dictation did not start").arg(run));
            continue;
        }
        microphone.speak(speech[run % speech.size()]);
        TestSupport::waitUntil([] { return false; }, 1000);
        const qsizetype before = terminalBytes().size();
        const qsizetype saved = TranscriptStore(TranscriptStore::fileURL()).entries().size();
        QElapsedTimer clock;
        keyboard.release(56);
        clock.start();
        // The text is complete once the history has it and foot holds as many bytes.
        QByteArray expected;
        const bool done = TestSupport::waitUntil([&] {
            const auto entries = TranscriptStore(TranscriptStore::fileURL()).entries();
            if (entries.size() <= saved)
                return false;
            expected = entries.last().text.toUtf8();
            const QByteArray now = terminalBytes();
            return now.size() > before && now.endsWith(expected);
        }, 30000);
        const double ms = clock.nsecsElapsed() / 1e6;
        if (!done) {
            print(QStringLiteral("  %1    FAILED: the text did not arrive").arg(run));
            continue;
        }
        print(QStringLiteral("  %1    %2    %3%4").arg(run).arg(expected.size(), 5).arg(ms, 8, 'f', 1)
                  .arg(run == 0 ? QStringLiteral("  (warm-up)") : QString()));
        if (run > 0)
            latencies.push_back(ms);
        TestSupport::waitUntil([] { return false; }, 500);
    }
    print(QStringLiteral("  median %1 ms, 95th percentile %2 ms over %3 runs (nearest rank)")
              .arg(BenchSpeech::median(latencies), 0, 'f', 1).arg(BenchSpeech::percentile(latencies, 95), 0, 'f', 1).arg(latencies.size()));
    TestSupport::stop(tolvane);
    microphone.stop();
    return static_cast<int>(latencies.size()) == runs;
}

}  // namespace

int main(int argc, char** argv)
{
    BenchSpeech::runInSandbox(argc, argv, false);
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments().mid(1);
    const int runs = args.size() > 0 ? std::max(1, args[0].toInt()) : 10;
    const int characters = args.size() > 1 ? std::max(150, args[1].toInt()) : 20000;
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
    const bool typed = typingRate(characters);
    const bool dictated = releaseToText(sway, runs);
    return typed && dictated ? 0 : 1;
}
