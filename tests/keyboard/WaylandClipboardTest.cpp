// The clipboard lent to a paste through the data-control protocols, over the Wayland wire against
// the harness's in-process compositor: the standard ext_data_control_manager_v1, which no compositor
// here offers, and the wlroots one (sway's, which the sway test covers too). Another application's
// clipboard, text and an image larger than a pipe holds, comes back byte for byte after the paste;
// a copy made meanwhile stays.
#include "keyboard/ClipboardRestore.h"
#include "keyboard/wayland/DataControlClipboard.h"
#include "keyboard/wayland/WaylandConnection.h"
#include "keyboard/wayland/WaylandTextInjector.h"
#include "support/ClipboardClient.h"
#include "support/FakeCompositor.h"
#include "support/TestSupport.h"

#include <QTest>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {
const QString dictation = u"Dictated: ünïcödé 😀 中文\nsecond line"_s;
const QByteArray utf8Text = "text/plain;charset=utf-8";
const QString ext = u"ext_data_control_manager_v1"_s;
}  // namespace

class WaylandClipboardTest : public QObject {
    Q_OBJECT
    std::unique_ptr<FakeCompositor> compositor_;
    std::unique_ptr<WaylandConnection> connection_;
    std::unique_ptr<DataControlClipboard> clipboard_;

    // A compositor offering the protocols asked for, another application's `copied` content on its
    // clipboard, and Tolvane's clipboard on a connection to it: false when there is none.
    bool start(bool offersExt, bool offersWlr, const FakeCompositor::Content& copied = {})
    {
        compositor_ = std::make_unique<FakeCompositor>();
        QString error = compositor_->start(offersExt, offersWlr);
        qputenv("WAYLAND_DISPLAY", compositor_->waylandDisplay().toLocal8Bit());
        if (!copied.isEmpty())
            compositor_->copy(copied);
        connection_ = std::make_unique<WaylandConnection>();
        if (error.isEmpty() && connection_->open(&error))
            clipboard_ = DataControlClipboard::create(*connection_);
        if (!error.isEmpty())
            qWarning() << error;
        return clipboard_ != nullptr;
    }
    // Every type of `content` is on the clipboard, byte for byte, and nothing else.
    bool holds(const FakeCompositor::Content& content)
    {
        QList<QByteArray> types, held = compositor_->selection().types;
        for (const auto& [type, bytes] : content) {
            types << type;
            if (const auto pasted = compositor_->paste(type); pasted != bytes)
                return qWarning() << type << "pasted" << (pasted ? pasted->size() : -1) << "bytes, expected" << bytes.size(), false;
        }
        std::sort(types.begin(), types.end());
        std::sort(held.begin(), held.end());
        return held == types;
    }
    // Tolvane, through `protocol`, holds the clipboard again with something other than the dictation.
    bool restored(const QString& protocol)
    {
        return TestSupport::waitUntil([&] {
            const auto held = compositor_->selection();
            return held.owner == protocol && !held.types.contains(ClipboardContent::transientHintType);
        });
    }

    // The protocols a compositor offers, and the one Tolvane should use.
    static void protocolRows()
    {
        QTest::addColumn<bool>("offersExt");
        QTest::addColumn<bool>("offersWlr");
        QTest::addColumn<QString>("used");
        QTest::newRow("ext") << true << false << ext;
        QTest::newRow("zwlr") << false << true << u"zwlr_data_control_manager_v1"_s;
        QTest::newRow("both: the standard one") << true << true << ext;
    }

private Q_SLOTS:
    void cleanup()
    {
        clipboard_.reset();
        connection_.reset();
        compositor_.reset();
    }

    // The dictation is what the application pastes, marked for clipboard managers; then the previous
    // content comes back in every type, the second time served by Tolvane itself. A copy someone else
    // makes while the third paste borrows the clipboard is never overwritten; the fourth lends and
    // returns that copy. Once the compositor is gone, pasting fails rather than Tolvane.
    void lendsAndRestoresEveryFormat_data() { protocolRows(); }
    void lendsAndRestoresEveryFormat()
    {
        QFETCH(bool, offersExt);
        QFETCH(bool, offersWlr);
        QFETCH(QString, used);
        // Larger than a pipe holds at once, and it does not compress.
        const FakeCompositor::Content before{{utf8Text, "Copied before: ü 😀"_ba}, {"image/png", ClipboardClient::noisePng(160)}};
        const FakeCompositor::Content meanwhile{{utf8Text, "copied meanwhile"_ba}, {"text/html", "<b>meanwhile</b>"_ba}};
        QVERIFY(before.last().second.size() > 65536);
        QVERIFY(start(offersExt, offersWlr, before));
        QCOMPARE(QString::fromLatin1(clipboard_->protocol()), used);
        for (int paste = 1; paste <= 4; ++paste) {
            QVERIFY(clipboard_->setForPaste(dictation, std::nullopt));
            QCOMPARE(compositor_->selection().owner, used);
            QVERIFY(compositor_->selection().types.contains(ClipboardContent::transientHintType));
            clipboard_->keystrokeSent();
            if (paste == 3) {
                compositor_->copy(meanwhile);
                const int changes = compositor_->selection().changes;
                // Past the longest a restore waits for the application to ask.
                QTest::qWait(static_cast<int>(ClipboardRestore::noRequestLimit.count()) + 500);
                QCOMPARE(compositor_->selection().changes, changes);
                QCOMPARE(compositor_->selection().owner, u"compositor"_s);
                QVERIFY(holds(meanwhile));
                continue;
            }
            QCOMPARE(compositor_->paste(utf8Text), dictation.toUtf8());
            QVERIFY(restored(used));
            QVERIFY2(holds(paste < 3 ? before : meanwhile), qPrintable(u"after paste %1"_s.arg(paste)));
        }
        compositor_->stop();
        QVERIFY(!clipboard_->setForPaste(dictation, std::nullopt));
        QVERIFY(!clipboard_->setForPaste(dictation, std::nullopt));
    }

    // With nothing copied before, the dictation does not linger after the paste.
    void emptyClipboardStaysEmpty()
    {
        QVERIFY(start(true, false));
        QVERIFY(clipboard_->setForPaste(dictation, std::nullopt));
        clipboard_->keystrokeSent();
        QCOMPARE(compositor_->paste(utf8Text), dictation.toUtf8());
        QVERIFY(TestSupport::waitUntil([&] { return compositor_->selection().owner.isEmpty(); }));
        QCOMPARE(compositor_->selection().changes, 2);
    }

    // The start-up log line names the protocol in use; with neither offered the injector pastes
    // through the Xwayland clipboard as before.
    void injectorNamesThePastingWay_data()
    {
        protocolRows();
        QTest::newRow("neither") << false << false
                                 << u"the Xwayland clipboard (the compositor offers neither ext_data_control_manager_v1 nor "
                                    "zwlr_data_control_manager_v1)"_s;
    }
    void injectorNamesThePastingWay()
    {
        QFETCH(bool, offersExt);
        QFETCH(bool, offersWlr);
        QFETCH(QString, used);
        QCOMPARE(start(offersExt, offersWlr), offersExt || offersWlr);
        const WaylandTextInjector injector([](QString* error) {
            *error = u"no uinput here"_s;
            return nullptr;
        });
        QVERIFY2(injector.description().contains(u"; pasting through "_s + used + u"; "_s), qPrintable(injector.description()));
    }
};

QTEST_GUILESS_MAIN(WaylandClipboardTest)
#include "WaylandClipboardTest.moc"
