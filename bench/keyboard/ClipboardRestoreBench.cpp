// The clipboard lent to a paste: the time from Ctrl+V until the previous content (a 200 kB PNG and
// some HTML, owned by another application) is back on the clipboard, for a client that pastes at
// once, one that pastes 1 s late, and one that never asks; and whether the text arrived and the PNG
// came back byte for byte. Run: build/bench/keyboard/bench_clipboard_restore [runs]
// It re-runs itself under tests/support/run-test.sh --xvfb for its own X server and XDG folders.
#include "BenchSpeech.h"
#include "keyboard/x11/TextInjector.h"
#include "support/ClipboardClient.h"
#include "support/RecordingClient.h"
#include "support/TestSupport.h"

#include <QApplication>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

namespace {

qint64 monotonicUs()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

struct Run {
    double restoredMs = -1;  // from Ctrl+V; -1: not restored within 5 s
    double arrivedMs = -1;   // the text in the client, from Ctrl+V; -1: did not arrive (or never asked)
    bool intact = false;     // the PNG came back byte for byte
};

struct Client {
    const char* name;
    int pasteDelayMs;  // -1: never pastes (a terminal that ignores Ctrl+V, say)
};

Run pasteOnce(TextInjector& injector, RecordingClient& target, ClipboardClient& other, const Client& client,
              const QMap<QString, QByteArray>& before, const QString& text)
{
    Run r;
    target.clear();
    target.setPasteDelay(client.pasteDelayMs < 0 ? 60000 : client.pasteDelayMs);
    other.own(before);
    const qsizetype seen = other.changes().size();
    if (!injector.pasteViaClipboard(text))
        return r;
    const qint64 keyUs = monotonicUs();
    // The other application sees two changes of owner: the dictation, then the restore.
    QList<qint64> changes;
    TestSupport::waitUntil([&] { return (changes = other.changes()).size() >= seen + 2; }, 5000);
    if (changes.size() >= seen + 2)
        r.restoredMs = (changes.at(seen + 1) - keyUs) / 1e3;
    if (client.pasteDelayMs >= 0) {
        const auto got = target.waitFor([&](const auto& g) { return g.text == text; }, 5000);
        if (got.text == text)
            r.arrivedMs = (got.lastChangeUs - keyUs) / 1e3;
    }
    r.intact = other.read(QStringLiteral("image/png")) == before.value(QStringLiteral("image/png"));
    return r;
}

double percentile(std::vector<double> v, double p)
{
    if (v.empty())
        return -1;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<size_t>(p * (v.size() - 1) + 0.5))];
}

}  // namespace

int main(int argc, char** argv)
{
    BenchSpeech::runInSandbox(argc, argv, true);
    const int runs = argc > 1 ? std::max(1, atoi(argv[1])) : 5;
    QApplication app(argc, argv);
    RecordingClient target;
    ClipboardClient other;
    if (!target.start() || !other.start()) {
        std::fprintf(stderr, "bench: the recording or the clipboard client did not start\n");
        return 1;
    }
    TextInjector injector;
    const QMap<QString, QByteArray> before{{QStringLiteral("image/png"), ClipboardClient::noisePng(230)},
                                           {QStringLiteral("text/html"), "<p>Copied <b>rich</b> text</p>"}};
    const QString text = QStringLiteral("A dictation long enough to be pasted rather than typed, as the finishing pipeline does "
                                        "for anything over one hundred and fifty characters: this one has about two hundred.");
    std::printf("clipboard restore on %s, %d runs each; PNG of %lld bytes and HTML on the clipboard before\n",
                qgetenv("DISPLAY").constData(), runs, static_cast<long long>(before.first().size()));
    std::printf("  %-34s %14s %14s %14s %8s %7s\n", "client", "restored med", "restored max", "text arrived", "lost", "intact");
    for (const Client& client : {Client{"fast (pastes at once)", 0}, Client{"slow (pastes 1 s late)", 1000}, Client{"never asks", -1}}) {
        std::vector<double> restored, arrived;
        int lost = 0, intact = 0;
        for (int i = 0; i < runs; ++i) {
            const Run r = pasteOnce(injector, target, other, client, before, text);
            if (r.restoredMs >= 0)
                restored.push_back(r.restoredMs);
            if (r.arrivedMs >= 0)
                arrived.push_back(r.arrivedMs);
            else if (client.pasteDelayMs >= 0)
                ++lost;
            intact += r.intact;
        }
        const QByteArray arrival = arrived.empty() ? QByteArray("-") : QByteArray::number(percentile(arrived, 0.5), 'f', 0) + " ms";
        std::printf("  %-34s %11.0f ms %11.0f ms %14s %8d %4d/%d\n", client.name, percentile(restored, 0.5),
                    percentile(restored, 1.0), arrival.constData(), lost, intact, runs);
    }
    return 0;
}
