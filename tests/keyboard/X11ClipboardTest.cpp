// Pasting through the clipboard against a private X server: another application owns the clipboard
// before the paste, the recording client pastes, and afterwards the clipboard holds what it held.
#include "keyboard/ClipboardRestore.h"
#include "keyboard/x11/TextInjector.h"
#include "support/ClipboardClient.h"
#include "support/RecordingClient.h"
#include "support/TestSupport.h"

#include <QApplication>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {
using Formats = QMap<QString, QByteArray>;

const QString dictation = u"Pasted dictation: ünïcödé 😀 中文\nsecond line"_s;
const QString restored = u"the clipboard is "_s;
}  // namespace

class X11ClipboardTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(target_.start());
        QVERIFY(other_.start());
    }

    void init()
    {
        QVERIFY(target_.clear() && target_.setPasteDelay(0));
    }

    // Every format comes back with its bytes: small, larger than one X property (sent in pieces both
    // ways), and beyond the cap only the text.
    void keepsEveryFormat_data()
    {
        QTest::addColumn<Formats>("before");
        QTest::addColumn<QStringList>("gone");
        const QByteArray html = "<p>Copied <b>rich</b> text, ü</p>";
        QTest::newRow("png and html") << Formats{{u"image/png"_s, ClipboardClient::noisePng(64)}, {u"text/html"_s, html}} << QStringList();
        QTest::newRow("png in pieces") << Formats{{u"image/png"_s, ClipboardClient::noisePng(700)}, {u"text/html"_s, html}} << QStringList();
        QTest::newRow("over the cap: text only")
            << Formats{{u"text/plain"_s, "kept text"_ba}, {u"image/png"_s, ClipboardClient::noisePng(2100)}, {u"text/html"_s, html}}
            << QStringList{u"image/png"_s, u"text/html"_s};
        QTest::newRow("empty") << Formats() << QStringList();
    }
    void keepsEveryFormat()
    {
        QFETCH(Formats, before);
        QFETCH(QStringList, gone);
        const TestSupport::LogMark mark;
        QVERIFY(other_.own(before));
        const qsizetype seen = other_.changes().size();
        QVERIFY(injector_.pasteViaClipboard(dictation));
        QCOMPARE(target_.waitFor([](const auto& r) { return r.text == dictation; }).text, dictation);
        QVERIFY(restoreSeen(mark, seen));
        for (auto it = before.begin(); it != before.end(); ++it) {
            const auto got = other_.read(it.key());
            QVERIFY2(gone.contains(it.key()) ? !got : got == it.value(), qPrintable(it.key()));
        }
        QCOMPARE(mark.messages().filter(u"only its text is kept"_s).size(), int(!gone.isEmpty()));
        if (before.isEmpty())
            QCOMPARE(other_.formats(), QStringList());
    }

    // A slow application gets the dictation, marked for clipboard managers to skip; asking for that
    // mark is no paste. Then the old content comes back. With no request at all it comes back too.
    void slowPasteGetsTheDictation_data()
    {
        QTest::addColumn<int>("delayMs");
        QTest::addColumn<QString>("logged");
        QTest::newRow("asks after 1 s") << 1000 << u"after the paste"_s;
        QTest::newRow("never asks") << -1 << u"no application asked for the pasted text within 2.00 s"_s;
    }
    void slowPasteGetsTheDictation()
    {
        QFETCH(int, delayMs);
        QFETCH(QString, logged);
        const TestSupport::LogMark mark;
        QVERIFY(target_.setPasteDelay(delayMs < 0 ? 60000 : delayMs));
        QVERIFY(other_.own({{u"text/plain"_s, "old"_ba}}));
        const qsizetype seen = other_.changes().size();
        QVERIFY(injector_.pasteViaClipboard(dictation));
        QVERIFY(changesSeen(seen + 1));
        QCOMPARE(other_.read(u"x-kde-passwordManagerHint"_s), "secret"_ba);
        if (delayMs > 0)
            QCOMPARE(target_.waitFor([](const auto& r) { return r.text == dictation; }).text, dictation);
        QVERIFY(restoreSeen(mark, seen));
        QCOMPARE(mark.messages().filter(logged).size(), 1);
        QCOMPARE(other_.read(u"text/plain"_s), "old"_ba);
        QVERIFY(!other_.formats().contains(u"x-kde-passwordManagerHint"_s));
    }

    // What another application copies between the paste and the restore stays.
    void copyDuringThePasteStays()
    {
        const TestSupport::LogMark mark;
        QVERIFY(target_.setPasteDelay(1000));
        QVERIFY(other_.own({{u"text/plain"_s, "old"_ba}}));
        const qsizetype seen = other_.changes().size();
        QVERIFY(injector_.pasteViaClipboard(dictation));
        QVERIFY(changesSeen(seen + 1));  // as a user would, copies after seeing the paste's change
        QVERIFY(other_.own({{u"text/plain"_s, "newer"_ba}}));
        QCOMPARE(target_.waitFor([](const auto& r) { return !r.text.isEmpty(); }).text, u"newer"_s);
        QVERIFY(mark.waitFor(u"clipboard: another program took the clipboard after the paste; what it holds now stays"_s));
        QTest::qWait(int(ClipboardRestore::noRequestLimit.count()) + 300);  // past any restore
        QCOMPARE(other_.read(u"text/plain"_s), "newer"_ba);
        QVERIFY(mark.messages().filter(restored).isEmpty());
    }

private:
    // The other application has seen the clipboard's owner change `count` times: it no longer
    // answers from what it knew before.
    bool changesSeen(qsizetype count)
    {
        return TestSupport::waitUntil([&] { return other_.changes().size() >= count; });
    }
    // The restore is logged and seen (after the dictation's change).
    bool restoreSeen(const TestSupport::LogMark& mark, qsizetype seen)
    {
        return TestSupport::waitUntil([&] { return !mark.messages().filter(restored).isEmpty(); }) && changesSeen(seen + 2);
    }

    RecordingClient target_;
    ClipboardClient other_;
    TextInjector injector_;
};

QTEST_MAIN(X11ClipboardTest)
#include "X11ClipboardTest.moc"
