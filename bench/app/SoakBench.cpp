// Weeks in a tray, compressed: N dictations back to back through the real tolvane on a private X
// server, the speech synthesised once and played through a PulseAudio pipe microphone, the text
// typed into the recording client. It reports resident memory after the 50th and the last
// dictation, open file descriptors and threads after every 100th, and whether every transcript
// arrived whole in the client. It fails (exit status 1) when a transcript went missing or resident
// memory grew by more than 5 MiB between the 50th and the last dictation.
//
// Run: build/bench/app/bench_soak [dictations]   (default 500; at least 51)
// It re-runs itself under tests/support/run-test.sh --xvfb for its own X server and XDG folders.
#include "BenchSpeech.h"
#include "storage/Diagnostics.h"
#include "storage/Preferences.h"
#include "storage/TranscriptStore.h"
#include "support/RecordingClient.h"
#include "support/Sound.h"
#include "support/Speech.h"
#include "support/TestSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>

#include <cstdio>

namespace {

constexpr unsigned altL = 64;
constexpr int warmUp = 50;
constexpr double allowedGrowthMiB = 5.0;
const QString ready = QStringLiteral("bootstrap: READY — hold ⌥ to dictate, or ⌥+Space to toggle.");
const QString capturing = QStringLiteral("dictation: audio + transcriber running");

const QStringList sentences = {
    QStringLiteral("pick up milk and eggs on the way home"),
    QStringLiteral("the meeting moved to three o'clock"),
    QStringLiteral("please call me back after lunch"),
    QStringLiteral("remind me to water the plants tomorrow"),
};

using BenchSpeech::print;

// The diagnostic log read from where the last read stopped, so 500 dictations' worth of lines are
// not parsed again on every poll.
class LogTail {
public:
    QStringList next()
    {
        Diagnostics::flush();
        QFile file(Diagnostics::logFilePath());
        if (!file.open(QIODevice::ReadOnly) || !file.seek(offset_))
            return {};
        QByteArray bytes = file.readAll();
        const qsizetype end = bytes.lastIndexOf('\n') + 1;  // a line still being written waits
        offset_ += end;
        QStringList out;
        for (const QByteArray& line : bytes.left(end).split('\n'))
            if (!line.isEmpty())
                out << QString::fromUtf8(line.mid(line.indexOf("] ") + 2));
        return out;
    }
    void skip() { next(); }

private:
    qint64 offset_ = 0;
};

struct ProcessState {
    double rssMiB = -1;
    int threads = -1, fds = -1;
};

ProcessState inspect(qint64 pid)
{
    ProcessState s;
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (status.open(QIODevice::ReadOnly)) {
        for (const QByteArray& line : status.readAll().split('\n')) {
            const QList<QByteArray> f = line.simplified().split(' ');
            if (f.size() >= 2 && f.at(0) == "VmRSS:")
                s.rssMiB = f.at(1).toDouble() / 1024.0;
            else if (f.size() >= 2 && f.at(0) == "Threads:")
                s.threads = f.at(1).toInt();
        }
    }
    s.fds = static_cast<int>(QDir(QStringLiteral("/proc/%1/fd").arg(pid)).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size());
    return s;
}

class Soak {
public:
    ~Soak()
    {
        TestSupport::stop(tolvane_);
        microphone_.stop();
    }

    QString start()
    {
        if (QString problem = microphone_.start(); !problem.isEmpty())
            return problem;
        if (!fingers_.ok() || !client_.start())
            return QStringLiteral("the recording client did not start on the X server");
        Preferences::shared().setCleanupMode(CleanupMode::raw);  // what was recognised is what must arrive
        Preferences::shared().setLiveTyping(false);
        Preferences::shared().setValue(Settings::noTrayExplained, true);
        tolvane_.setStandardOutputFile(QProcess::nullDevice());
        tolvane_.setStandardErrorFile(QProcess::nullDevice());  // its log mirror; the log file has it all
        tolvane_.start(TestSupport::tolvaneBinary(), {});
        if (!waitForLine([](const QString& l) { return l == ready; }, 60000))
            return QStringLiteral("tolvane did not become ready");
        return {};
    }

    qint64 pid() const { return tolvane_.processId(); }
    bool running() const { return tolvane_.state() == QProcess::Running; }

    // One hold-and-speak dictation; an empty string when its transcript arrived in the client whole.
    QString dictate(const QByteArray& speech)
    {
        if (!client_.clear() || !client_.focus())
            return QStringLiteral("the client could not be cleared or focused");
        log_.skip();
        fingers_.press(altL);
        if (!waitForLine([](const QString& l) { return l == capturing || l.contains(QLatin1String("start FAILED")); }, 20000)
            || !started_) {
            fingers_.release(altL);
            return QStringLiteral("the dictation did not start");
        }
        microphone_.speak(speech);
        TestSupport::waitUntil([] { return false; }, 1000);  // the capture takes in what the pipe holds
        fingers_.release(altL);
        const auto ended = [](const QString& l) {
            return l.startsWith(QLatin1String("dictation: pasted=")) || l == QLatin1String("dictation: final text length=0")
                   || l.startsWith(QLatin1String("dictation: transcription error"));
        };
        if (!waitForLine(ended, 30000) || !lastLine_.startsWith(QLatin1String("dictation: pasted=")))
            return QStringLiteral("the dictation did not end with an insertion (%1)").arg(lastLine_);
        // The history is saved just after the insertion.
        TranscriptEntry saved;
        TestSupport::waitUntil([&] {
            const QList<TranscriptEntry> all = TranscriptStore(TranscriptStore::fileURL()).entries();
            saved = all.isEmpty() ? TranscriptEntry{} : all.last();
            return saved.timestamp != previousStamp_;
        });
        if (saved.timestamp == previousStamp_ || saved.text.isEmpty())
            return QStringLiteral("no new transcript was saved");
        previousStamp_ = saved.timestamp;
        const QString transcript = saved.text;
        const auto got = client_.waitFor([&](const RecordingClient::Received& r) { return r.text.trimmed() == transcript; });
        if (got.text.trimmed() != transcript)
            return QStringLiteral("“%1” was saved, “%2” arrived").arg(transcript, got.text);
        return {};
    }

private:
    bool waitForLine(const std::function<bool(const QString&)>& match, int timeoutMs)
    {
        started_ = false;
        return TestSupport::waitUntil(
            [&] {
                for (const QString& line : log_.next()) {
                    lastLine_ = line;
                    started_ = started_ || line == capturing;
                    if (match(line))
                        return true;
                }
                return false;
            },
            timeoutMs);
    }

    AudioTest::PipeMicrophone microphone_;
    QProcess tolvane_;
    RecordingClient client_;
    Fingers fingers_;
    LogTail log_;
    bool started_ = false;
    QString lastLine_, previousStamp_;
};

QString mib(double v) { return QString::number(v, 'f', 1) + QStringLiteral(" MiB"); }

int soak(int count)
{
    Diagnostics::setMirrored(false);
    Preferences::shared().setHistoryRetention(100);
    print(QStringLiteral("Soak: %1 dictations back to back through the real tolvane under Xvfb (festival's speech through a "
                         "PulseAudio pipe microphone, held Left Alt, raw cleanup, typed into the recording client).")
              .arg(count));
    QList<QByteArray> speech;
    for (const QString& s : sentences) {
        speech << AudioTest::pcm16(SpeechTest::synthesize(s));
        if (speech.last().isEmpty()) {
            print(QStringLiteral("bench_soak: festival and sox are needed (scripts/setup.sh --test installs them)"));
            return 1;
        }
    }
    Soak soak;
    if (const QString problem = soak.start(); !problem.isEmpty()) {
        print(QStringLiteral("bench_soak: ") + problem);
        return 1;
    }
    const ProcessState atReady = inspect(soak.pid());
    print(QStringLiteral("At READY: resident %1, %2 threads, %3 file descriptors").arg(mib(atReady.rssMiB)).arg(atReady.threads).arg(atReady.fds));
    print(QStringLiteral("  after   resident     threads  fds   missing  elapsed"));
    QElapsedTimer clock;
    clock.start();
    int missing = 0;
    double rssAtWarmUp = -1, rssAtEnd = -1;
    for (int i = 1; i <= count && soak.running(); ++i) {
        if (const QString why = soak.dictate(speech.at((i - 1) % speech.size())); !why.isEmpty()) {
            ++missing;
            print(QStringLiteral("  dictation %1: %2").arg(i).arg(why));
        }
        if (i != warmUp && i != count && i % 100 != 0)
            continue;
        const ProcessState s = inspect(soak.pid());
        if (i == warmUp)
            rssAtWarmUp = s.rssMiB;
        if (i == count)
            rssAtEnd = s.rssMiB;
        print(QStringLiteral("  %1   %2  %3  %4  %5  %6 s")
                  .arg(i, 5)
                  .arg(mib(s.rssMiB), 10)
                  .arg(s.threads, 7)
                  .arg(s.fds, 4)
                  .arg(missing, 7)
                  .arg(clock.elapsed() / 1000));
    }
    if (!soak.running()) {
        print(QStringLiteral("bench_soak: tolvane is no longer running"));
        return 1;
    }
    const double growth = rssAtEnd - rssAtWarmUp;
    print(QStringLiteral("Resident memory after %1: %2; after %3: %4; growth %5 (allowed %6): %7")
              .arg(warmUp)
              .arg(mib(rssAtWarmUp))
              .arg(count)
              .arg(mib(rssAtEnd), mib(growth), mib(allowedGrowthMiB),
                   growth <= allowedGrowthMiB ? QStringLiteral("met") : QStringLiteral("MISSED")));
    print(QStringLiteral("Transcripts that did not arrive: %1 of %2: %3")
              .arg(missing)
              .arg(count)
              .arg(missing == 0 ? QStringLiteral("met") : QStringLiteral("MISSED")));
    return growth <= allowedGrowthMiB && missing == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    BenchSpeech::runInSandbox(argc, argv, true);
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments().mid(1);
    const int count = args.isEmpty() ? 500 : args.first().toInt();
    if (count <= warmUp) {
        print(QStringLiteral("bench_soak: the number of dictations must be more than %1").arg(warmUp));
        return 2;
    }
    return soak(count);
}
