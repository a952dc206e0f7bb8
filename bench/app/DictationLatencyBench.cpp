// The whole program as a person uses it: the real tolvane on a private X server, a PulseAudio
// microphone fed in real time (a quiet hiss, and synthesised speech with its leading and trailing
// silence cut when the speaker talks), and the recording client to dictate into. For the decoder
// as it was (the flat second pass, no lead-in), with the lead-in, and as it is now (the lattice's
// best path instead of the flat pass), in one run, it reports:
//   - the time from the key release to the final text in the client for ~10 s utterances, with the
//     key released 0.15 s and 0.0 s after the last word (median and 95th percentile, and where the
//     time goes);
//   - the first words heard when speech starts 0.05 s after the key goes down;
//   - the word error rate over all of these;
// then, for the decoder as it is: the idle process's CPU and resident memory over 30 seconds once
// it has released its speech model, and one dictation that has to load the model again.
//
// Run: build/bench/app/bench_dictation_latency [runs-per-row] [idle-seconds]
//          [--release-after S] [--speech-after S]   (one more row with these delays)
//          [--wayland]   (in a headless sway session, typing into foot; the decoder as it is, no idle part)
// It re-runs itself under tests/support/run-test.sh --xvfb for its own X server and XDG folders.
#include "BenchSpeech.h"
#include "storage/Diagnostics.h"
#include "storage/Preferences.h"
#include "support/TestSupport.h"

#include "support/KeyPipe.h"
#include "support/RecordingClient.h"
#include "support/Sound.h"
#include "support/Speech.h"
#include "support/Sway.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QMap>
#include <QProcess>
#include <QRegularExpression>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <optional>
#include <thread>
#include <vector>

namespace {

constexpr unsigned altL = 64;
constexpr int sampleRate = 16000;
const QString ready = QStringLiteral("bootstrap: READY — hold ⌥ to dictate, or ⌥+Space to toggle.");
const QString released = QStringLiteral("transcriber: speech model released");
const QString loaded = QStringLiteral("transcriber: speech model loaded in ");

// The targets this benchmark reports against.
constexpr double idleCpuTargetPercent = 0.5, idleRssTargetMb = 120;

// About 5 s and about 10 s of speech in festival's voice; several, so no one sentence decides.
const QStringList shortSentences = {
    QStringLiteral("please send the quarterly report to the finance team before friday afternoon"),
    QStringLiteral("remind me to water the plants and pick up the dry cleaning tomorrow"),
    QStringLiteral("the train to the city leaves at seven fifteen from platform four"),
    QStringLiteral("can you move our meeting with the design group to next tuesday morning"),
};
const QStringList longSentences = BenchSpeech::longSentences().mid(0, 4);

qint64 monotonicUs()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void pause(int ms)
{
    TestSupport::waitUntil([] { return false; }, ms);
}

// Festival's speech as the pipe source's 16 kHz mono s16le, without the silence before and after the
// words: the speaker's timing is the benchmark's to set.
QByteArray speech(const QString& text)
{
    return AudioTest::pcm16(SpeechTest::withoutSilence(SpeechTest::synthesize(text)));
}

double seconds(const QByteArray& pcm) { return pcm.size() / 2.0 / sampleRate; }

// Nearest-rank percentile of a sorted list.
double percentile(std::vector<double> v, double p)
{
    if (v.empty())
        return NAN;
    std::sort(v.begin(), v.end());
    const auto rank = static_cast<size_t>(std::ceil(p / 100.0 * static_cast<double>(v.size())));
    return v[std::clamp<size_t>(rank, 1, v.size()) - 1];
}

QString fixed(double v, int decimals = 0)
{
    return std::isnan(v) ? QStringLiteral("—") : QString::number(v, 'f', decimals);
}

using BenchSpeech::print;

// The diagnostic log's lines from `from` on, as (time, message).
struct LogLine {
    QDateTime at;
    QString message;
};
std::vector<LogLine> logFrom(qsizetype from)
{
    static const QRegularExpression shape(QStringLiteral(R"(^(\S+Z) \[[^\]]+:\d+\] (.*)$)"));
    std::vector<LogLine> out;
    const QStringList lines = TestSupport::logLines();
    for (qsizetype i = from; i < lines.size(); ++i) {
        const auto m = shape.match(lines.at(i));
        if (m.hasMatch())
            out.push_back({QDateTime::fromString(m.captured(1), Qt::ISODateWithMs), m.captured(2)});
    }
    return out;
}

const LogLine* find(const std::vector<LogLine>& log, const QString& start)
{
    for (const LogLine& l : log)
        if (l.message.startsWith(start))
            return &l;
    return nullptr;
}

struct ProcSample {
    long long ticks = -1;  // utime + stime
    long rssKb = -1, hwmKb = -1;
};

ProcSample sample(qint64 pid)
{
    ProcSample s;
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (stat.open(QIODevice::ReadOnly)) {
        // Fields after the command name, which is in parentheses and may hold blanks.
        const QByteArray all = stat.readAll();
        const QList<QByteArray> f = all.mid(all.lastIndexOf(')') + 2).split(' ');
        if (f.size() > 12)
            s.ticks = f.at(11).toLongLong() + f.at(12).toLongLong();  // utime, stime (fields 14 and 15)
    }
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (status.open(QIODevice::ReadOnly)) {
        for (const QByteArray& line : status.readAll().split('\n')) {
            const QList<QByteArray> f = line.simplified().split(' ');
            if (f.size() >= 2 && f.at(0) == "VmRSS:")
                s.rssKb = f.at(1).toLong();
            else if (f.size() >= 2 && f.at(0) == "VmHWM:")
                s.hwmKb = f.at(1).toLong();
        }
    }
    return s;
}

double mb(long kb) { return kb / 1024.0; }

// Resident memory by what is mapped (a file, or the heap and anonymous memory), largest first.
std::vector<std::pair<QString, long>> residentByMapping(qint64 pid)
{
    QFile smaps(QStringLiteral("/proc/%1/smaps").arg(pid));
    if (!smaps.open(QIODevice::ReadOnly))
        return {};
    QMap<QString, long> kb;
    QString current;
    for (const QByteArray& raw : smaps.readAll().split('\n')) {
        const QList<QByteArray> f = raw.simplified().split(' ');
        if (f.isEmpty() || f.at(0).isEmpty())
            continue;
        if (f.at(0).contains('-') && !f.at(0).endsWith(':')) {  // a mapping's header line
            current = f.size() >= 6 ? QString::fromUtf8(f.mid(5).join(' ')) : QStringLiteral("[anonymous]");
            if (current.startsWith(QLatin1String("[stack")))
                current = QStringLiteral("[stack]");
        } else if (f.at(0) == "Rss:" && f.size() >= 2) {
            kb[current] += f.at(1).toLong();
        }
    }
    std::vector<std::pair<QString, long>> out(kb.keyValueBegin(), kb.keyValueEnd());
    std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
    return out;
}

// Where the text goes and where the keys come from: the recording client on the bench's X server,
// or foot in a headless sway session with a keyboard made of a pipe.
class Desk {
public:
    virtual ~Desk() = default;
    virtual QString start() = 0;  // what went wrong, or nothing
    virtual QString describe() const = 0;
    // What tolvane's environment gets on top of the bench's own.
    virtual QMap<QString, QString> environment() const { return {}; }
    virtual bool ready() = 0;  // once tolvane is ready: the keys connected, the client focused
    virtual bool clear() = 0;
    virtual void press() = 0;
    virtual void release() = 0;  // returns once the key monitor can see the release
    // The text received since clear() and when it last changed (steady clock, µs).
    virtual std::optional<RecordingClient::Received> dump() = 0;
};

class X11Desk final : public Desk {
public:
    QString start() override
    {
        return fingers_.ok() && client_.start() ? QString() : QStringLiteral("the recording client did not start on the X server");
    }
    QString describe() const override { return QStringLiteral("the real tolvane under Xvfb, the recording client"); }
    bool ready() override { return client_.focus(); }
    bool clear() override { return client_.clear() && client_.focus(); }
    void press() override { fingers_.press(altL); }
    void release() override { fingers_.release(altL); }  // XSync'd: the server has the release now
    std::optional<RecordingClient::Received> dump() override
    {
        auto got = client_.dump();
        pause(20);  // the client spends its time receiving keys, not answering
        return got;
    }

private:
    RecordingClient client_;
    Fingers fingers_;
};

class WaylandDesk final : public Desk {
public:
    ~WaylandDesk() override
    {
        watching_ = false;
        if (watcher_.joinable())
            watcher_.join();
        keyboard_.reset();
        sway_.stop();
    }
    QString start() override
    {
        if (QString problem = sway_.start({QStringLiteral("floating_minimum_size 1 x 1"), SwaySession::recordingTerminal()});
            !problem.isEmpty())
            return problem;
        if (!TestSupport::waitUntil([] { return QFile::exists(SwaySession::terminalOutput()); }, 20000))
            return QStringLiteral("foot did not start");
        keyboard_ = std::make_unique<KeyPipe>(AudioTest::sandboxPath(QStringLiteral("keyboard")));
        // The moment foot's output last grew, to the millisecond, whatever the bench is doing.
        watcher_ = std::thread([this] {
            const QByteArray path = QFile::encodeName(SwaySession::terminalOutput());
            while (watching_) {
                struct stat st {};
                if (::stat(path.constData(), &st) == 0 && st.st_size != seenSize_) {
                    lastChangeUs_ = monotonicUs();
                    seenSize_ = st.st_size;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        return {};
    }
    QString describe() const override
    {
        return QStringLiteral("the real tolvane in a headless sway session, its keys from a pipe read as a keyboard, typing "
                              "into foot");
    }
    QMap<QString, QString> environment() const override
    {
        QMap<QString, QString> env = sway_.clientEnvironment();
        env.insert(QStringLiteral("TOLVANE_INPUT_DEVICES"), keyboard_->path());
        return env;
    }
    bool ready() override { return keyboard_->connect(); }
    bool clear() override
    {
        from_ = QFileInfo(SwaySession::terminalOutput()).size();
        return true;
    }
    void press() override { keyboard_->press(EvKey::leftAlt); }
    void release() override { keyboard_->release(EvKey::leftAlt); }  // returns once tolvane has read it
    std::optional<RecordingClient::Received> dump() override
    {
        QFile out(SwaySession::terminalOutput());
        if (!out.open(QIODevice::ReadOnly) || !out.seek(from_))
            return std::nullopt;
        RecordingClient::Received got;
        const QByteArray bytes = out.readAll();
        got.text = QString::fromUtf8(bytes);
        // The watcher may not have seen the file grow to what was just read; its time is the one wanted.
        TestSupport::waitUntil([&] { return seenSize_ >= from_ + bytes.size(); }, 1000);
        got.lastChangeUs = lastChangeUs_;
        pause(5);
        return got;
    }

private:
    SwaySession sway_;
    std::unique_ptr<KeyPipe> keyboard_;
    std::thread watcher_;
    std::atomic<bool> watching_{true};
    std::atomic<qint64> lastChangeUs_{0};
    std::atomic<qint64> seenSize_{0};  // of foot's output, when lastChangeUs_ was taken
    qint64 from_ = 0;
};

struct Run {
    bool ok = false;
    QString failure;
    double speechSeconds = 0;
    double latencyMs = NAN;                                   // release → last change in the client
    double upMs = NAN, finishingMs = NAN, finalMs = NAN, pastedMs = NAN;  // release → log line (wall clock, ms)
    double runningMs = NAN;     // key down → capture started
    double firstBlockMs = NAN;  // key down → first captured block
    double modelLoadMs = NAN;   // when the session had to load the speech model first
    int chars = 0;
    bool pasted = false;  // through the clipboard (over 150 characters) rather than typed
    int wordErrors = 0, wordsSaid = 0, wordsHeard = 0;
    bool firstWord = false;  // the first word said is the first word that arrived
};

// The decoder tuning a run of tolvane gets through its settings file.
struct Tuning {
    QString name;
    int leadInMs;
    QString pass;  // "flat" or "lattice"
};
const Tuning before{QStringLiteral("before"), 0, QStringLiteral("flat")};
const Tuning flat{QStringLiteral("flat"), Settings::speechLeadInMs.fallback, QStringLiteral("flat")};
const Tuning now{QStringLiteral("now"), Settings::speechLeadInMs.fallback, Settings::speechDecoderPass.fallback};

class Bench {
public:
    explicit Bench(Desk& desk) : desk_(desk) {}
    ~Bench() { stop(); }

    bool start()
    {
        if (const QString problem = microphone_.start(); !problem.isEmpty())
            return fail(problem);
        microphone_.listen();
        if (const QString problem = desk_.start(); !problem.isEmpty())
            return fail(problem);
        return true;
    }

    // Starts tolvane with `tuning`, after quitting the one running.
    bool launch(const Tuning& tuning)
    {
        TestSupport::stop(tolvane_);
        // The text exactly as recognised: no language model takes part in what is timed.
        Preferences::shared().setCleanupMode(CleanupMode::raw);
        Preferences::shared().setLiveTyping(false);
        Preferences::shared().setValue(Settings::noTrayExplained, true);  // no notice window mid-dictation
        Preferences::shared().setValue(Settings::speechLeadInMs, tuning.leadInMs);
        Preferences::shared().setValue(Settings::speechDecoderPass, tuning.pass);
        const qsizetype mark = TestSupport::logLines().size();
        tolvane_.setProcessChannelMode(QProcess::SeparateChannels);
        tolvane_.setStandardOutputFile(QProcess::nullDevice());
        tolvane_.setStandardErrorFile(QProcess::nullDevice());  // its log mirror; the log file has it all
        tolvane_.setProcessEnvironment(TestSupport::environmentWith(desk_.environment()));
        tolvane_.start(TestSupport::tolvaneBinary(), {});
        if (!tolvane_.waitForStarted(10000))
            return fail(QStringLiteral("tolvane did not start"));
        const bool up = TestSupport::waitUntil(
            [&] {
                const auto log = logFrom(mark);
                return std::any_of(log.begin(), log.end(), [](const LogLine& l) { return l.message == ready; });
            },
            60000);
        if (!up)
            return fail(QStringLiteral("tolvane did not become ready"));
        atReady_ = sample(tolvane_.processId());
        return desk_.ready() || fail(QStringLiteral("the keys or the client to dictate into are not ready"));
    }

    void stop()
    {
        TestSupport::stop(tolvane_);
        microphone_.stop();
    }

    // Presses the key, starts speaking `startDelay` s later and lets go `releaseDelay` s after the
    // last word, as a person does.
    Run dictate(const QString& said, const QByteArray& audio, double startDelay, double releaseDelay)
    {
        using namespace std::chrono;
        Run r;
        r.speechSeconds = seconds(audio);
        if (!desk_.clear()) {
            r.failure = QStringLiteral("client not ready");
            return r;
        }
        const qsizetype mark = TestSupport::logLines().size();
        const QDateTime downAt = QDateTime::currentDateTimeUtc();
        const auto down = AudioTest::PipeMicrophone::Clock::now();
        desk_.press();
        microphone_.say(audio, down + duration_cast<steady_clock::duration>(duration<double>(startDelay)));
        const auto lastWord = microphone_.waitUntilSaid(120000);
        if (!lastWord) {
            desk_.release();
            r.failure = QStringLiteral("the speech was not played");
            settle(mark);
            return r;
        }
        std::this_thread::sleep_until(*lastWord + duration_cast<steady_clock::duration>(duration<double>(releaseDelay)));
        desk_.release();
        const qint64 releasedUs = monotonicUs();
        const QDateTime releasedAt = QDateTime::currentDateTimeUtc();

        // The final text's length is logged before it is inserted; the client is done when it holds
        // that many characters (plus the leading blank of a dictation moments after the last).
        int expected = -1;
        std::optional<RecordingClient::Received> got;
        const bool done = TestSupport::waitUntil(
            [&] {
                const auto log = logFrom(mark);
                if (expected < 0) {
                    if (const LogLine* l = find(log, QStringLiteral("dictation: final text length=")))
                        expected = l->message.section(QLatin1Char('='), 1).toInt();
                    else if (find(log, QStringLiteral("dictation: transcription error")))
                        return true;
                }
                if (expected == 0)
                    return true;
                if (expected < 0)
                    return false;
                got = desk_.dump();
                return got && got->text.trimmed().size() == expected && find(logFrom(mark), QStringLiteral("dictation: pasted="));
            },
            30000);
        const auto log = logFrom(mark);
        auto since = [&](const QString& start) {
            const LogLine* l = find(log, start);
            return l ? static_cast<double>(releasedAt.msecsTo(l->at)) : NAN;
        };
        r.upMs = since(QStringLiteral("hotkey: OPTION UP"));
        r.finishingMs = since(QStringLiteral("dictation: finishing ("));
        r.finalMs = since(QStringLiteral("dictation: final text length="));
        r.pastedMs = since(QStringLiteral("dictation: pasted="));
        if (const LogLine* l = find(log, QStringLiteral("audio: first block")))
            r.firstBlockMs = static_cast<double>(downAt.msecsTo(l->at));
        if (const LogLine* l = find(log, QStringLiteral("dictation: audio + transcriber running")))
            r.runningMs = static_cast<double>(downAt.msecsTo(l->at));
        if (const LogLine* l = find(log, loaded))
            r.modelLoadMs = l->message.mid(loaded.size()).section(QLatin1Char(' '), 0, 0).toDouble();
        const QStringList reference = SpeechTest::words(said);
        r.wordsSaid = static_cast<int>(reference.size());
        r.wordErrors = r.wordsSaid;
        if (!done || expected <= 0 || !got) {
            r.failure = expected == 0 ? QStringLiteral("nothing recognised")
                        : done        ? QStringLiteral("transcription error")
                                      : QStringLiteral("text did not arrive (%1 of %2 characters: \"%3\")")
                                            .arg(got ? got->text.trimmed().size() : 0)
                                            .arg(expected)
                                            .arg(got ? got->text.right(40) : QString());
            settle(mark);
            return r;
        }
        r.ok = find(log, QStringLiteral("dictation: pasted=true")) != nullptr;
        if (!r.ok)
            r.failure = QStringLiteral("insertion failed");
        r.latencyMs = (got->lastChangeUs - releasedUs) / 1000.0;
        if (got->lastChangeUs < releasedUs) {
            r.ok = false;
            r.failure = QStringLiteral("text arrived before the release");
        }
        r.chars = static_cast<int>(got->text.size());
        r.pasted = r.chars > 150;
        const QStringList heard = SpeechTest::words(got->text);
        r.wordsHeard = SpeechTest::wordsInOrder(reference, heard);
        r.wordErrors = BenchSpeech::wordErrors(reference, heard);
        r.firstWord = !heard.isEmpty() && heard.first() == reference.first();
        settle(mark);
        return r;
    }

    // CPU and resident memory of tolvane left alone for `secs` seconds, pill shown, once it has
    // given back its speech model.
    struct Idle {
        double cpuPercent = NAN, rssMeanMb = NAN, rssMaxMb = NAN, hwmMb = NAN, readyRssMb = NAN;
        double loadedRssMb = NAN;    // just after the last dictation, model still loaded
        double releasedAfterS = NAN;  // from then until the model was released
        std::vector<std::pair<QString, long>> byMapping;
    };
    Idle idle(int secs)
    {
        Idle out;
        out.readyRssMb = mb(atReady_.rssKb);
        const qint64 pid = tolvane_.processId();
        const qsizetype mark = TestSupport::logLines().size();
        const qint64 sinceUs = monotonicUs();
        pause(3000);  // whatever the last dictation set going has ended
        out.loadedRssMb = mb(sample(pid).rssKb);
        if (!TestSupport::waitUntil([&] { return find(logFrom(mark), released); }, 120000))
            print(QStringLiteral("bench_dictation_latency: the speech model was not released within 2 minutes"));
        else
            out.releasedAfterS = (monotonicUs() - sinceUs) / 1e6;
        pause(1000);
        const ProcSample first = sample(pid);
        const qint64 startUs = monotonicUs();
        long maxKb = first.rssKb;
        double sumKb = 0;
        int n = 0;
        for (int i = 0; i < secs; ++i) {
            pause(1000);
            const ProcSample s = sample(pid);
            maxKb = std::max(maxKb, s.rssKb);
            sumKb += static_cast<double>(s.rssKb);
            ++n;
        }
        const ProcSample last = sample(pid);
        const double elapsed = (monotonicUs() - startUs) / 1e6;
        if (first.ticks >= 0 && last.ticks >= 0)
            out.cpuPercent = static_cast<double>(last.ticks - first.ticks) / static_cast<double>(sysconf(_SC_CLK_TCK)) / elapsed * 100.0;
        out.rssMeanMb = n ? mb(static_cast<long>(sumKb / n)) : NAN;
        out.rssMaxMb = mb(maxKb);
        out.hwmMb = mb(last.hwmKb);
        out.byMapping = residentByMapping(pid);
        return out;
    }

    bool running() const { return tolvane_.state() == QProcess::Running; }

private:
    static bool fail(const QString& why)
    {
        print(QStringLiteral("bench_dictation_latency: ") + why);
        return false;
    }

    // Until the dictation has fully ended (pill back to idle), so the next one starts clean.
    void settle(qsizetype mark)
    {
        TestSupport::waitUntil(
            [&] {
                const auto log = logFrom(mark);
                return find(log, QStringLiteral("dictation: pasted=")) || find(log, QStringLiteral("dictation: final text length=0"))
                       || find(log, QStringLiteral("dictation: transcription error"));
            },
            30000);
        pause(700);
    }

    Desk& desk_;
    AudioTest::PipeMicrophone microphone_;
    QProcess tolvane_;
    ProcSample atReady_;
};

QString verdict(bool met) { return met ? QStringLiteral("met") : QStringLiteral("MISSED"); }

void report(const QString& name, const std::vector<Run>& runs)
{
    print(QStringLiteral("\n%1").arg(name));
    print(QStringLiteral("  run  speech  chars  how    errors  first  capture  1st-block  key-up  finishing  final-text  inserted  in-client(ms)"));
    for (size_t i = 0; i < runs.size(); ++i) {
        const Run& r = runs[i];
        if (!r.ok && std::isnan(r.latencyMs)) {
            print(QStringLiteral("  %1   %2 s  —      FAILED: %3 (key-up %4, finishing %5, final %6 ms)")
                      .arg(i + 1, 2)
                      .arg(fixed(r.speechSeconds, 1), 4)
                      .arg(r.failure, fixed(r.upMs), fixed(r.finishingMs), fixed(r.finalMs)));
            continue;
        }
        print(QStringLiteral("  %1   %2 s  %3  %4  %5  %6  %7  %8  %9  %10  %11  %12  %13")
                  .arg(i + 1, 2)
                  .arg(fixed(r.speechSeconds, 1), 4)
                  .arg(r.chars, 5)
                  .arg(r.pasted ? QStringLiteral("paste") : QStringLiteral("typed"), 5)
                  .arg(QStringLiteral("%1/%2").arg(r.wordErrors).arg(r.wordsSaid), 6)
                  .arg(r.firstWord ? QStringLiteral("yes") : QStringLiteral("LOST"), 5)
                  .arg(fixed(r.runningMs), 7)
                  .arg(fixed(r.firstBlockMs), 9)
                  .arg(fixed(r.upMs), 6)
                  .arg(fixed(r.finishingMs), 9)
                  .arg(fixed(r.finalMs), 10)
                  .arg(fixed(r.pastedMs), 8)
                  .arg(fixed(r.latencyMs, 1), 13));
    }
}

struct Summary {
    double median = NAN, p95 = NAN;
    int counted = 0, total = 0;
};

Summary summarise(const std::vector<Run>& runs, double Run::*field)
{
    std::vector<double> v;
    for (const Run& r : runs)
        if (r.ok && !std::isnan(r.*field))
            v.push_back(r.*field);
    return {percentile(v, 50), percentile(v, 95), static_cast<int>(v.size()), static_cast<int>(runs.size())};
}

// One row of the table: `runs` dictations of the sentences in turn with these delays.
struct Row {
    QString name;
    const QStringList* sentences;
    double startDelay, releaseDelay;
    double medianTargetMs = NAN, p95TargetMs = NAN;  // for the release → text rows
    bool firstWords = false;                         // the first-words row
};

int benchMain(Desk& desk, int runs, int idleSeconds, std::optional<std::pair<double, double>> extra)
{
    Diagnostics::setMirrored(false);
    // In a sway session only today's decoder: the other two are the X11 run's comparison.
    const bool wayland = dynamic_cast<WaylandDesk*>(&desk) != nullptr;
    const std::vector<const Tuning*> tunings = wayland ? std::vector<const Tuning*>{&now} : std::vector<const Tuning*>{&before, &flat, &now};
    print(QStringLiteral("Dictation latency and first words: %1, a PulseAudio pipe microphone fed in real time (hiss, and "
                         "festival's speech with its leading and trailing silence cut). Cleanup mode raw, live typing off. "
                         "%2 runs per row; 95th percentile by nearest rank.")
              .arg(desk.describe())
              .arg(runs));

    QMap<QString, QByteArray> audio;
    for (const QStringList* set : {&shortSentences, &longSentences})
        for (const QString& s : *set) {
            audio[s] = speech(s);
            if (audio[s].isEmpty()) {
                print(QStringLiteral("bench_dictation_latency: festival and sox are needed (scripts/setup.sh --test installs them)"));
                return 1;
            }
        }
    QFile loadavg(QStringLiteral("/proc/loadavg"));
    if (loadavg.open(QIODevice::ReadOnly))
        print(QStringLiteral("Machine: %1 cores; load average at the start %2 (other work on the machine shows in the times).")
                  .arg(std::thread::hardware_concurrency())
                  .arg(QString::fromUtf8(loadavg.readAll()).section(QLatin1Char(' '), 0, 2)));

    std::vector<Row> rows{
        {QStringLiteral("~10 s, key released 0.15 s after the last word"), &longSentences, 0.3, 0.15, 80, 150},
        {QStringLiteral("~10 s, key released 0.0 s after the last word"), &longSentences, 0.3, 0.0, 120, 200},
        {QStringLiteral("~5 s, speech starting 0.05 s after the key goes down"), &shortSentences, 0.05, 0.15, NAN, NAN, true},
        {QStringLiteral("~5 s, speech starting as the key goes down"), &shortSentences, 0.0, 0.15, NAN, NAN, true},
    };
    if (extra)
        rows.push_back({QStringLiteral("~10 s, speech %1 s after the key goes down, released %2 s after the last word")
                            .arg(extra->first)
                            .arg(extra->second),
                        &longSentences, extra->first, extra->second});

    Bench bench(desk);
    if (!bench.start())
        return 1;
    QMap<QString, std::vector<std::vector<Run>>> results;  // by tuning, then by row
    for (const Tuning* tuning : tunings) {
        if (!bench.launch(*tuning))
            return 1;
        print(QStringLiteral("\n=== Decoder %1: lead-in %2 ms, words found by the %3 pass ===")
                  .arg(tuning->name)
                  .arg(tuning->leadInMs)
                  .arg(tuning->pass));
        // The first dictation after start-up pays for things done once; it is not counted.
        const Run warm = bench.dictate(shortSentences.at(0), audio[shortSentences.at(0)], 0.3, 0.3);
        print(QStringLiteral("Warm-up dictation (not counted): %1 ms%2")
                  .arg(fixed(warm.latencyMs, 1), warm.ok ? QString() : QStringLiteral(" (") + warm.failure + QLatin1Char(')')));
        auto& byRow = results[tuning->name];
        for (const Row& row : rows) {
            std::vector<Run> done;
            for (int i = 0; i < runs && bench.running(); ++i) {
                const QString& said = row.sentences->at(i % row.sentences->size());
                done.push_back(bench.dictate(said, audio[said], row.startDelay, row.releaseDelay));
            }
            report(row.name + QStringLiteral(" (decoder ") + tuning->name + QLatin1Char(')'), done);
            byRow.push_back(std::move(done));
        }
        if (!bench.running()) {
            print(QStringLiteral("bench_dictation_latency: tolvane is no longer running"));
            return 1;
        }
    }
    print(QStringLiteral("  (times in ms: capture and 1st-block from the key press to the capture started and to its first "
                         "block; key-up, finishing, final-text and inserted after the release, from the diagnostic log's lines to the millisecond; "
                         "in-client is the client's own clock)"));

    // One column per decoder; the verdict is the default's.
    QString header = QStringLiteral("\nResult").leftJustified(59);
    for (const Tuning* t : tunings)
        header += t->name.leftJustified(12);
    print(header + QStringLiteral("target          verdict (now)"));
    auto row = [](const QString& what, const QStringList& values, const QString& target, const QString& verdictText) {
        QString line = QStringLiteral("  ") + what.leftJustified(56) + QLatin1Char(' ');
        for (const QString& v : values)
            line += v.leftJustified(12);
        print(line + target.leftJustified(16) + verdictText);
    };
    auto firstWordsOf = [](const std::vector<Run>& v) {
        return static_cast<int>(std::count_if(v.begin(), v.end(), [](const Run& x) { return x.firstWord; }));
    };
    for (size_t k = 0; k < rows.size(); ++k) {
        const Row& r = rows[k];
        const std::vector<Run>& cur = results[now.name][k];
        if (r.firstWords) {
            QStringList values;
            for (const Tuning* t : tunings)
                values << QStringLiteral("%1 of %2").arg(firstWordsOf(results[t->name][k])).arg(results[t->name][k].size());
            row(r.name + QStringLiteral(": first words that arrive"), values, QStringLiteral("all"),
                verdict(firstWordsOf(cur) == static_cast<int>(cur.size()) && !cur.empty()));
            continue;
        }
        const bool targeted = !std::isnan(r.medianTargetMs);
        QStringList medians, p95s;
        for (const Tuning* t : tunings) {
            const Summary sum = summarise(results[t->name][k], &Run::latencyMs);
            medians << fixed(sum.median, 1) + QStringLiteral(" ms");
            p95s << fixed(sum.p95, 1) + QStringLiteral(" ms");
            if (sum.counted < sum.total)
                print(QStringLiteral("    (%1: counted %2 of %3 runs; the others failed, see above)").arg(t->name).arg(sum.counted).arg(sum.total));
        }
        const Summary n = summarise(cur, &Run::latencyMs);
        row(r.name + QStringLiteral(": median"), medians, targeted ? QStringLiteral("≤ %1 ms").arg(r.medianTargetMs) : QStringLiteral("—"),
            targeted ? verdict(n.median <= r.medianTargetMs) : QString());
        row(r.name + QStringLiteral(": 95th percentile"), p95s, targeted ? QStringLiteral("≤ %1 ms").arg(r.p95TargetMs) : QStringLiteral("—"),
            targeted ? verdict(n.p95 <= r.p95TargetMs) : QString());
    }
    auto wer = [&](const Tuning& t) {
        int errors = 0, words = 0;
        for (const auto& runs : results[t.name])
            for (const Run& run : runs) {
                errors += run.wordErrors;
                words += run.wordsSaid;
            }
        return words ? 100.0 * errors / words : NAN;
    };
    QStringList rates;
    for (const Tuning* t : tunings)
        rates << fixed(wer(*t), 1) + QStringLiteral(" %");
    if (wayland) {
        row(QStringLiteral("word error rate over all the runs above"), rates, QStringLiteral("—"), QString());
        return 0;
    }
    row(QStringLiteral("word error rate over all the runs above"), rates, QStringLiteral("≤ before + 0.5"),
        verdict(wer(now) <= wer(before) + 0.5));

    print(QStringLiteral("\nIdle (decoder now): tolvane left alone until it releases its speech model, then for %1 s more ...")
              .arg(idleSeconds));
    const Bench::Idle idle = bench.idle(idleSeconds);
    // The next dictation loads the model again while the user speaks.
    const Run cold = bench.dictate(shortSentences.at(1), audio[shortSentences.at(1)], 0.3, 0.15);
    report(QStringLiteral("~5 s, the first after the model was released"), {cold});
    print(QStringLiteral("  (the session loaded the model in %1 ms while the speech was captured)").arg(fixed(cold.modelLoadMs)));
    auto measured = [](const QString& what, double v, const QString& unit, const QString& target, bool met, int decimals) {
        print(QStringLiteral("  %1 %2 %3  %4  %5")
                  .arg(what, -38)
                  .arg(fixed(v, decimals), 8)
                  .arg(unit, -3)
                  .arg(target, -9)
                  .arg(std::isnan(v) ? QStringLiteral("no data") : verdict(met)));
    };
    measured(QStringLiteral("idle CPU over %1 s").arg(idleSeconds), idle.cpuPercent, QStringLiteral("%"), QStringLiteral("< 0.5 %"),
             idle.cpuPercent < idleCpuTargetPercent, 2);
    measured(QStringLiteral("idle resident memory, mean"), idle.rssMeanMb, QStringLiteral("MiB"), QStringLiteral("≤ 120 MB"),
             idle.rssMeanMb <= idleRssTargetMb, 1);
    measured(QStringLiteral("idle resident memory, peak while idle"), idle.rssMaxMb, QStringLiteral("MiB"), QStringLiteral("≤ 120 MB"),
             idle.rssMaxMb <= idleRssTargetMb, 1);
    print(QStringLiteral("  (CPU from /proc/PID/stat in ticks of 1/%1 s. Memory is VmRSS in MiB, the target read as 120 MiB. "
                         "Resident memory at READY %2 MiB; highest ever (VmHWM) %3 MiB; with the model still loaded, 3 s "
                         "after the last dictation: %4 MiB; it was released %5 s after that dictation.)")
              .arg(sysconf(_SC_CLK_TCK))
              .arg(fixed(idle.readyRssMb, 1), fixed(idle.hwmMb, 1), fixed(idle.loadedRssMb, 1), fixed(idle.releasedAfterS, 1)));
    if (!idle.byMapping.empty()) {
        print(QStringLiteral("\nIdle resident memory by mapping (MiB, largest first):"));
        long rest = 0;
        for (size_t i = 0; i < idle.byMapping.size(); ++i) {
            if (i < 12)
                print(QStringLiteral("  %1  %2").arg(fixed(mb(idle.byMapping[i].second), 1), 7).arg(idle.byMapping[i].first));
            else
                rest += idle.byMapping[i].second;
        }
        print(QStringLiteral("  %1  everything else").arg(fixed(mb(rest), 1), 7));
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    BenchSpeech::runInSandbox(argc, argv, true);
    QCoreApplication app(argc, argv);
    QStringList positional;
    double releaseAfter = NAN, speechAfter = NAN;
    bool wayland = false;
    const QStringList args = app.arguments().mid(1);
    for (qsizetype i = 0; i < args.size(); ++i) {
        if (args[i] == QLatin1String("--wayland"))
            wayland = true;
        else if (args[i] == QLatin1String("--release-after") && i + 1 < args.size())
            releaseAfter = args[++i].toDouble();
        else if (args[i] == QLatin1String("--speech-after") && i + 1 < args.size())
            speechAfter = args[++i].toDouble();
        else
            positional << args[i];
    }
    const int runs = positional.size() > 0 ? std::max(1, positional[0].toInt()) : 10;
    const int idleSeconds = positional.size() > 1 ? std::max(1, positional[1].toInt()) : 30;
    std::optional<std::pair<double, double>> extra;
    if (!std::isnan(releaseAfter) || !std::isnan(speechAfter))
        extra = {std::isnan(speechAfter) ? 0.3 : speechAfter, std::isnan(releaseAfter) ? 0.15 : releaseAfter};
    std::unique_ptr<Desk> desk = wayland ? std::unique_ptr<Desk>(std::make_unique<WaylandDesk>()) : std::make_unique<X11Desk>();
    return benchMain(*desk, runs, idleSeconds, extra);
}
