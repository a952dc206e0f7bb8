// Types 2,000 mixed characters into the recording client on a private Xvfb and reports characters
// per second and characters lost; then the same for prose alone, a 150-character dictation, 300
// Chinese characters, and a paste. Run: build/bench/keyboard/bench_text_injector [runs]
#include "support/RecordingClient.h"
#include "keyboard/x11/TextInjector.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

// Characters of `expected` missing from `got` (length of `expected` less their longest common
// subsequence), so a dropped, doubled or wrong character all count.
int lostCharacters(const QString& expected, const QString& got)
{
    const auto a = expected.toUcs4(), b = got.toUcs4();
    std::vector<int> prev(static_cast<size_t>(b.size()) + 1), cur(prev.size());
    for (qsizetype i = 1; i <= a.size(); ++i) {
        for (qsizetype j = 1; j <= b.size(); ++j)
            cur[j] = a[i - 1] == b[j - 1] ? prev[j - 1] + 1 : std::max(prev[j], cur[j - 1]);
        std::swap(prev, cur);
    }
    return static_cast<int>(a.size()) - prev[static_cast<size_t>(b.size())];
}

QString build(const QStringList& pieces, int length)
{
    QString out;
    for (int i = 0; out.toUcs4().size() < length; ++i)
        out += pieces.at(i % pieces.size());
    const auto ucs = out.toUcs4();
    return QString::fromUcs4(reinterpret_cast<const char32_t*>(ucs.constData()), length);
}

struct Result {
    double postSeconds = 0;  // until insertText or pasteViaClipboard returned
    double seconds = 0;
    int lost = 0;
    int chars = 0;
};

Result typeInto(RecordingClient& client, TextInjector& injector, const QString& text)
{
    client.clear();
    QElapsedTimer t;
    t.start();
    injector.insertText(text);
    const double posted = t.nsecsElapsed() / 1e9;
    injector.insertText(QStringLiteral("#"));  // the end marker; the same connection keeps order
    const auto got = client.waitFor([](const auto& r) { return r.text.endsWith(QLatin1Char('#')); }, 60000);
    Result r;
    r.seconds = t.nsecsElapsed() / 1e9;
    r.postSeconds = posted;
    r.chars = static_cast<int>(text.toUcs4().size());
    r.lost = lostCharacters(text, got.text.chopped(got.text.isEmpty() ? 0 : 1));
    return r;
}

Result pasteInto(RecordingClient& client, TextInjector& injector, const QString& text)
{
    client.clear();
    QElapsedTimer t;
    t.start();
    injector.pasteViaClipboard(text);
    const double posted = t.nsecsElapsed() / 1e9;
    const auto got = client.waitFor([&](const auto& r) { return r.text.size() >= text.size(); }, 60000);
    Result r;
    r.seconds = t.nsecsElapsed() / 1e9;
    r.postSeconds = posted;
    r.chars = static_cast<int>(text.toUcs4().size());
    r.lost = lostCharacters(text, got.text);
    return r;
}

void report(const char* what, const std::vector<Result>& runs)
{
    for (const Result& r : runs)
        std::printf("  %-26s %5d chars  posted in %7.1f ms  arrived in %7.1f ms  %7.0f chars/s  lost %d\n", what,
                    r.chars, r.postSeconds * 1e3, r.seconds * 1e3, r.chars / r.seconds, r.lost);
}

}  // namespace

int main(int argc, char** argv)
{
    const int runs = argc > 1 ? std::max(1, atoi(argv[1])) : 3;
    // A private X server and private settings, so nothing of the user's session is touched.
    QTemporaryDir home;
    qputenv("XDG_CONFIG_HOME", home.filePath(QStringLiteral("config")).toUtf8());
    qputenv("XDG_DATA_HOME", home.filePath(QStringLiteral("data")).toUtf8());
    QProcess xvfb;
    xvfb.start(QStringLiteral("Xvfb"), {QStringLiteral("-displayfd"), QStringLiteral("1"), QStringLiteral("-screen"),
                                        QStringLiteral("0"), QStringLiteral("1280x800x24"), QStringLiteral("-nolisten"),
                                        QStringLiteral("tcp")});
    if (!xvfb.waitForStarted(5000) || !xvfb.waitForReadyRead(10000)) {
        std::fprintf(stderr, "bench: Xvfb did not start (package xvfb)\n");
        return 1;
    }
    const QByteArray display = ":" + xvfb.readAllStandardOutput().trimmed();
    qputenv("DISPLAY", display);
    qputenv("QT_QPA_PLATFORM", "xcb");

    int rc = 0;
    {
        QApplication app(argc, argv);
        RecordingClient client;
        if (!client.start()) {
            std::fprintf(stderr, "bench: the recording client did not start\n");
            rc = 1;
        } else {
            TextInjector injector;
            const QStringList prose = {
                QStringLiteral("The quick brown fox jumps over the lazy dog, and then it runs away. "),
                QStringLiteral("Please send the report to Anna by Friday; she needs it for the 3 o'clock meeting! "),
                QStringLiteral("Is this (really) the best we can do? Maybe: \"yes\" or 'no' -- 50% of the time. "),
            };
            const QStringList mixed = {
                prose.at(0),
                QStringLiteral("Grüße aus Zürich: das Café ist geöffnet, la façade est très jolie. "),
                prose.at(1),
                QStringLiteral("Señor Muñoz said “déjà vu” 😀 and left 👍. "),
                prose.at(2),
                QStringLiteral("Tokyo is 東京 and Beijing is 北京; 谢谢 for the note. "),
                QStringLiteral("Paragraph break here.\nNext line with ñ and ø.\n"),
            };
            const QString mixedText = build(mixed, 2000);
            const QString proseText = build(prose, 2000);
            const QString dictation = build(prose, 150);
            // Many distinct characters no layout key has: spare keycodes must be reused, with a
            // settling pause each time.
            const QString cjk = build({QStringLiteral("我们今天下午在会议室讨论了明年的预算计划和新产品的发布时间。"),
                                       QStringLiteral("大家都同意先完成市场调查然后再决定具体的推广方案与合作伙伴。")},
                                      300);
            std::vector<Result> m, p, d, c, s;
            for (int i = 0; i < runs; ++i) {
                m.push_back(typeInto(client, injector, mixedText));
                p.push_back(typeInto(client, injector, proseText));
                d.push_back(typeInto(client, injector, dictation));
                c.push_back(typeInto(client, injector, cjk));
                s.push_back(pasteInto(client, injector, mixedText));
            }
            std::printf("text injector on %s, %d runs (time until the client holds all of it)\n",
                        display.constData(), runs);
            report("typed, mixed", m);
            report("typed, prose", p);
            report("typed, 150-char dictation", d);
            report("typed, Chinese", c);
            report("pasted, mixed", s);
        }
    }
    xvfb.terminate();
    xvfb.waitForFinished(5000);
    return rc;
}
