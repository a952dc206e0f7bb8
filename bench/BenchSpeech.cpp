#include "BenchSpeech.h"

#include "support/Sound.h"

#include <QDir>

#include <pocketsphinx.h>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>

#include <sndfile.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace BenchSpeech {

namespace {

const QStringList kSentences{
    QStringLiteral("please pick up milk eggs spinach and coffee on the way home"),
    QStringLiteral("the meeting has been moved to thursday afternoon at three"),
    QStringLiteral("remind me to call the dentist tomorrow morning"),
    QStringLiteral("send the report to the whole team before friday"),
    QStringLiteral("i think we should book the hotel near the station"),
    QStringLiteral("can you check whether the new version is ready for testing"),
    QStringLiteral("the weather is supposed to be cold and windy all week"),
    QStringLiteral("add a note that the kitchen window needs to be repaired"),
    QStringLiteral("thank you for your help with the project last month"),
    QStringLiteral("we are running late so please start without us"),
    QStringLiteral("turn left at the second light and park behind the library"),
    QStringLiteral("my flight lands at seven in the evening so i will take a taxi"),
};


bool run(const QString& program, const QStringList& args, const QByteArray& input = QByteArray())
{
    QProcess p;
    p.start(program, args);
    if (!p.waitForStarted())
        return false;
    p.write(input);
    p.closeWriteChannel();
    return p.waitForFinished(300000) && p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0;
}

// The tests' microphone hiss over the whole recording, as a real microphone would add it.
void addHiss(std::vector<float>& samples)
{
    std::uint32_t noise = 7;
    for (float& s : samples)
        s += AudioTest::hiss(noise) / 32768.0f;
}

bool addHissToWav(const QString& path)
{
    SF_INFO info{};
    SNDFILE* in = sf_open(QFile::encodeName(path).constData(), SFM_READ, &info);
    if (!in)
        return false;
    const sf_count_t frames = info.frames;  // opening for writing sets it to 0
    std::vector<float> samples(static_cast<size_t>(frames * info.channels));
    sf_readf_float(in, samples.data(), frames);
    sf_close(in);
    addHiss(samples);
    SNDFILE* out = sf_open(QFile::encodeName(path).constData(), SFM_WRITE, &info);
    if (!out)
        return false;
    const bool ok = frames > 0 && sf_writef_float(out, samples.data(), frames) == frames;
    sf_close(out);
    return ok;
}

}  // namespace

std::vector<Recording> recordings(const QString& cacheDir, double leadSeconds, double tailSeconds, Length length)
{
    QDir().mkpath(cacheDir);
    std::vector<Recording> out;
    const QString lead = QString::number(leadSeconds);
    const QString tail = QString::number(tailSeconds);
    const QStringList& sentences = length == Length::sentence ? kSentences : length == Length::long_ ? longSentences() : heldOutSentences();
    for (int i = 0; i < sentences.size(); ++i) {
        const QString base = QDir(cacheDir).filePath(
            QStringLiteral("%1%2").arg(QLatin1Char("slh"[static_cast<int>(length)])).arg(i, 2, 10, QLatin1Char('0')));
        const QString voice = base + QStringLiteral("-voice.wav");
        if (!QFileInfo::exists(voice)
            && !run(QStringLiteral("text2wave"),
                    {QStringLiteral("-eval"), QStringLiteral("(voice_cmu_us_slt_arctic_hts)"), QStringLiteral("-o"), voice},
                    sentences[i].toUtf8()))
            qFatal("text2wave failed: install festival and festvox-us-slt-hts");
        Recording r;
        r.text = sentences[i];
        r.wavPath = base + QStringLiteral("-hiss-%1-%2-48k.wav").arg(lead, tail);
        const QString raw = base + QStringLiteral("-trim-%1-%2-16k.raw").arg(lead, tail);
        // The voice's own silence before and after the words is cut, so the pads are all there is.
        const QStringList trim{QStringLiteral("silence"), QStringLiteral("1"), QStringLiteral("0.01"), QStringLiteral("0.5%"),
                               QStringLiteral("reverse"), QStringLiteral("silence"), QStringLiteral("1"), QStringLiteral("0.01"),
                               QStringLiteral("0.5%"), QStringLiteral("reverse")};
        const QStringList pad = trim + QStringList{QStringLiteral("pad"), lead, tail};
        if (!QFileInfo::exists(r.wavPath)
            && !(run(QStringLiteral("sox"), QStringList{voice, QStringLiteral("-r"), QStringLiteral("48000"), r.wavPath} + pad)
                 && addHissToWav(r.wavPath)))
            qFatal("sox failed: install sox");
        if (!QFileInfo::exists(raw)
            && !run(QStringLiteral("sox"), QStringList{voice, QStringLiteral("-t"), QStringLiteral("raw"), QStringLiteral("-e"),
                                                      QStringLiteral("floating-point"), QStringLiteral("-b"), QStringLiteral("32"),
                                                      QStringLiteral("-r"), QStringLiteral("16000"), QStringLiteral("-c"),
                                                      QStringLiteral("1"), raw} + pad))
            qFatal("sox failed: install sox");
        QFile f(raw);
        if (!f.open(QIODevice::ReadOnly))
            qFatal("cannot read %s", qPrintable(raw));
        const QByteArray bytes = f.readAll();
        r.mono16k.resize(static_cast<size_t>(bytes.size()) / sizeof(float));
        std::memcpy(r.mono16k.data(), bytes.constData(), r.mono16k.size() * sizeof(float));
        addHiss(r.mono16k);
        r.seconds = static_cast<double>(r.mono16k.size()) / 16000.0;
        out.push_back(std::move(r));
    }
    return out;
}

// About ten seconds each, with the phrase breaks festival puts in a long sentence. Made on first use:
// benchmarks copy them into globals of their own, which may be initialised before this file's.
void print(const QString& line)
{
    std::fputs(line.toUtf8().constData(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

const QStringList& longSentences()
{
    static const QStringList sentences{
        QStringLiteral("i think we should postpone the product launch by two weeks because the testing team found several "
                       "problems with the payment page that still need fixing"),
        QStringLiteral("please book a table for six people at the italian restaurant near the office for thursday evening and "
                       "tell everyone we meet in the lobby at seven"),
        QStringLiteral("the weather service expects heavy rain over the weekend so we will move the company picnic indoors and "
                       "ask the caterers to come on saturday"),
        QStringLiteral("when you get home tonight could you check whether the package from the bookshop arrived and if it did "
                       "please put it on my desk"),
        QStringLiteral("our new office opens next month on the third floor of the building across the river so please pack "
                       "your desk before the end of the week"),
        QStringLiteral("the doctor said i should walk for thirty minutes every day drink more water and come back for another "
                       "check in six weeks"),
        QStringLiteral("can you ask the team to review the budget for next year and send me their comments by wednesday so "
                       "we can finish the plan"),
        QStringLiteral("we drove along the coast for three hours stopped for lunch in a small fishing village and arrived at "
                       "the hotel just before sunset"),
    };
    return sentences;
}

const QStringList& heldOutSentences()
{
    static const QStringList sentences{
        QStringLiteral("the children want to visit their grandmother in the country during the summer holidays"),
        QStringLiteral("could you print two copies of the contract and leave them at the front desk"),
        QStringLiteral("our internet connection was down for most of the morning so the update is late"),
        QStringLiteral("i left my umbrella on the bus this morning and now it is raining again"),
        QStringLiteral("the library closes early on sundays so return the books by saturday night"),
        QStringLiteral("please remember to lock the back door and switch off the lights when you leave"),
        QStringLiteral("the new manager wants a short summary of every project by the end of the month"),
        QStringLiteral("we need more chairs for the meeting room because twelve people are coming"),
        QStringLiteral("my sister is moving to a bigger apartment near the park next spring"),
        QStringLiteral("the price of the tickets went up again so we may travel by car instead"),
        QStringLiteral("tell the plumber that the water heater in the basement is leaking again"),
        QStringLiteral("i would like to order a large pizza with mushrooms and a bottle of water"),
        QStringLiteral("the museum has a new exhibition about old maps and the people who drew them"),
        QStringLiteral("do not forget that the car needs new tyres before we drive to the mountains"),
        QStringLiteral("she said the results of the survey will be ready after the long weekend"),
        QStringLiteral("write down the phone number of the garage so we can call them on monday"),
    };
    return sentences;
}

void runInSandbox(int argc, char** argv, bool xvfb)
{
    if (!qEnvironmentVariableIsEmpty("TOLVANE_TEST_SANDBOX"))
        return;
    std::vector<char*> args{const_cast<char*>("bash"), const_cast<char*>(TOLVANE_RUN_TEST)};
    if (xvfb)
        args.push_back(const_cast<char*>("--xvfb"));
    for (int i = 0; i < argc; ++i)
        args.push_back(argv[i]);
    args.push_back(nullptr);
    ::execvp("bash", args.data());
    std::perror("cannot run " TOLVANE_RUN_TEST);
    std::exit(1);
}

QStringList words(const QString& text)
{
    static const QRegularExpression nonWord(QStringLiteral("[^a-z' ]"));
    return text.toLower().replace(nonWord, QStringLiteral(" ")).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

int wordErrors(const QStringList& reference, const QStringList& hypothesis)
{
    std::vector<int> row(static_cast<size_t>(hypothesis.size()) + 1);
    for (size_t j = 0; j < row.size(); ++j)
        row[j] = static_cast<int>(j);
    for (qsizetype i = 1; i <= reference.size(); ++i) {
        int diagonal = row[0];
        row[0] = static_cast<int>(i);
        for (qsizetype j = 1; j <= hypothesis.size(); ++j) {
            const int above = row[static_cast<size_t>(j)];
            const int substitution = diagonal + (reference[i - 1] == hypothesis[j - 1] ? 0 : 1);
            row[static_cast<size_t>(j)] = std::min({above + 1, row[static_cast<size_t>(j - 1)] + 1, substitution});
            diagonal = above;
        }
    }
    return row.back();
}

double median(std::vector<double> values) { return percentile(std::move(values), 50); }

double percentile(std::vector<double> values, double p)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const auto rank = static_cast<size_t>(std::ceil(p / 100.0 * static_cast<double>(values.size())));
    return values[std::clamp<size_t>(rank, 1, values.size()) - 1];
}

double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

namespace {
double statusMB(const char* field)
{
    QFile f(QStringLiteral("/proc/self/status"));
    if (!f.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : f.readAll().split('\n')) {
        if (line.startsWith(field))
            return line.mid(static_cast<qsizetype>(std::strlen(field))).trimmed().split(' ').first().toDouble() / 1024.0;
    }
    return 0;
}
}  // namespace

double residentMB() { return statusMB("VmRSS:"); }
double peakResidentMB() { return statusMB("VmHWM:"); }

BareDecoder::BareDecoder(const PocketsphinxEngine::Settings& settings) : settings_(settings)
{
    const auto model = PocketsphinxEngine::Model::inFolder(QStringLiteral("/usr/share/pocketsphinx/model/en-us"), QStringLiteral("en-us"));
    if (!model || !(ps_ = PocketsphinxEngine::createDecoder(*model, settings)))
        qFatal("the decoder could not be made: pocketsphinx-en-us is needed");
}

BareDecoder::~BareDecoder()
{
    session_.reset();
    ps_free(ps_);
}

void BareDecoder::begin()
{
    heard_.clear();
    session_.emplace(ps_, settings_);
    session_->begin();
}

void BareDecoder::feed(const std::int16_t* samples, size_t count, bool withPartial)
{
    if (const std::optional<QString> ended = session_->feed(samples, count); ended && !ended->isEmpty())
        heard_ << *ended;
    else if (withPartial && session_->inSegment())
        session_->hypothesis();
}

QString BareDecoder::end()
{
    if (const QString last = session_->end(); !last.isEmpty())
        heard_ << last;
    session_.reset();
    return heard_.join(QLatin1Char(' '));
}

std::vector<std::int16_t> toPcm(const std::vector<float>& samples)
{
    std::vector<std::int16_t> pcm(samples.size());
    for (size_t i = 0; i < pcm.size(); ++i)
        pcm[i] = static_cast<std::int16_t>(std::lrint(std::clamp(samples[i], -1.0f, 1.0f) * 32767.0f));
    return pcm;
}

}  // namespace BenchSpeech
