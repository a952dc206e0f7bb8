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
const QString wlr = u"zwlr_data_control_manager_v1"_s;

QList<QByteArray> sortedTypes(QList<QByteArray> types)
{
    std::sort(types.begin(), types.end());
    return types;
}
}  // namespace

class WaylandClipboardTest : public QObject {
    Q_OBJECT
    std::unique_ptr<FakeCompositor> compositor_;
    std::unique_ptr<WaylandConnection> connection_;
    std::unique_ptr<DataControlClipboard> clipboard_;
    FakeCompositor::Content before_;

    // A compositor offering the protocols asked for, and Tolvane's clipboard on a connection to it.
    bool startCompositor(bool offersExt, bool offersWlr)
    {
        compositor_ = std::make_unique<FakeCompositor>();
        const QString error = compositor_->start({.ext = offersExt, .wlr = offersWlr});
        if (!error.isEmpty()) {
            qWarning() << error;
            return false;
        }
        qputenv("WAYLAND_DISPLAY", compositor_->waylandDisplay().toLocal8Bit());
        return true;
    }
    bool connectClipboard()
    {
        connection_ = std::make_unique<WaylandConnection>();
        QString error;
        if (!connection_->open(&error)) {
            qWarning() << error;
            return false;
        }
        clipboard_ = DataControlClipboard::create(*connection_);
        return clipboard_ != nullptr;
    }
    // Every type of `content` is on the clipboard, byte for byte, and nothing else.
    bool holds(const FakeCompositor::Content& content)
    {
        QList<QByteArray> types;
        for (const auto& [type, bytes] : content) {
            types << type;
            const auto pasted = compositor_->paste(type);
            if (pasted != bytes) {
                qWarning() << type << "pasted" << (pasted ? pasted->size() : -1) << "bytes, expected" << bytes.size();
                return false;
            }
        }
        return sortedTypes(compositor_->selectionTypes()) == sortedTypes(types);
    }
    // Pastes as the focused application does after the keystroke: the dictation arrives.
    bool pasteDictation()
    {
        if (!clipboard_->setForPaste(dictation, std::nullopt))
            return false;
        clipboard_->keystrokeSent();
        return compositor_->paste(utf8Text) == dictation.toUtf8();
    }

    // The compositor of the current row of protocolRows(), another application's content on its
    // clipboard, and Tolvane's clipboard on it; `used` is the protocol the row expects it to use.
    bool startRow(QString* usedProtocol)
    {
        QFETCH(bool, offersExt);
        QFETCH(bool, offersWlr);
        QFETCH(QString, used);
        *usedProtocol = used;
        if (!startCompositor(offersExt, offersWlr))
            return false;
        compositor_->copy(before_);
        return connectClipboard();
    }
    // Tolvane, through `protocol`, holds the clipboard again with something other than the dictation.
    bool restored(const QString& protocol)
    {
        return TestSupport::waitUntil([&] {
            return compositor_->selectionOwner() == protocol
                   && !compositor_->selectionTypes().contains(ClipboardContent::transientHintType);
        });
    }

    // The protocols a compositor offers, and the one Tolvane should use.
    static void protocolRows()
    {
        QTest::addColumn<bool>("offersExt");
        QTest::addColumn<bool>("offersWlr");
        QTest::addColumn<QString>("used");
        QTest::newRow("ext") << true << false << ext;
        QTest::newRow("zwlr") << false << true << wlr;
        QTest::newRow("both: the standard one") << true << true << ext;
    }

private Q_SLOTS:
    void initTestCase()
    {
        // Larger than a pipe holds at once, and it does not compress.
        before_ = {{utf8Text, "Copied before: ü 😀"_ba}, {"image/png", ClipboardClient::noisePng(160)}};
        QVERIFY(before_.last().second.size() > 65536);
    }

    void cleanup()
    {
        clipboard_.reset();
        connection_.reset();
        compositor_.reset();
    }

    // The dictation is what the application pastes, marked for clipboard managers; then the previous
    // content comes back in every type. The second paste finds it served by Tolvane itself.
    void lendsAndRestoresEveryFormat_data() { protocolRows(); }
    void lendsAndRestoresEveryFormat()
    {
        QString used;
        QVERIFY(startRow(&used));
        QCOMPARE(QString::fromLatin1(clipboard_->protocol()), used);
        for (int paste = 1; paste <= 2; ++paste) {
            QVERIFY(clipboard_->setForPaste(dictation, std::nullopt));
            QCOMPARE(compositor_->selectionOwner(), used);
            QVERIFY(compositor_->selectionTypes().contains(ClipboardContent::transientHintType));
            clipboard_->keystrokeSent();
            QCOMPARE(compositor_->paste(utf8Text), dictation.toUtf8());
            QVERIFY(restored(used));
            QVERIFY2(holds(before_), qPrintable(u"after paste %1"_s.arg(paste)));
        }
    }

    // A copy someone else makes while the paste borrows the clipboard is never overwritten; the next
    // paste lends and returns that copy.
    void keepsACopyMadeMeanwhile_data() { protocolRows(); }
    void keepsACopyMadeMeanwhile()
    {
        QString used;
        QVERIFY(startRow(&used));
        QVERIFY(clipboard_->setForPaste(dictation, std::nullopt));
        clipboard_->keystrokeSent();
        const FakeCompositor::Content meanwhile{{utf8Text, "copied meanwhile"_ba}, {"text/html", "<b>meanwhile</b>"_ba}};
        compositor_->copy(meanwhile);
        const int changes = compositor_->selectionChanges();
        // Past the longest a restore waits for the application to ask.
        QTest::qWait(static_cast<int>(ClipboardRestore::noRequestLimit.count()) + 500);
        QCOMPARE(compositor_->selectionChanges(), changes);
        QCOMPARE(compositor_->selectionOwner(), u"compositor"_s);
        QVERIFY(holds(meanwhile));

        QVERIFY(pasteDictation());
        QVERIFY(restored(used));
        QVERIFY(holds(meanwhile));
    }

    // With nothing copied before, the dictation does not linger after the paste.
    void emptyClipboardStaysEmpty()
    {
        QVERIFY(startCompositor(true, false));
        QVERIFY(connectClipboard());
        QVERIFY(pasteDictation());
        QVERIFY(TestSupport::waitUntil([&] { return compositor_->selectionOwner().isEmpty(); }));
        QCOMPARE(compositor_->selectionChanges(), 2);
    }

    // A compositor that went away fails the paste rather than Tolvane.
    void compositorGoneFailsThePaste()
    {
        QVERIFY(startCompositor(true, false));
        QVERIFY(connectClipboard());
        compositor_->stop();
        QVERIFY(!clipboard_->setForPaste(dictation, std::nullopt));
        QVERIFY(!clipboard_->setForPaste(dictation, std::nullopt));
    }

    // The start-up log line names the protocol in use; with neither offered the injector pastes
    // through the Xwayland clipboard as before.
    void injectorNamesThePastingWay_data()
    {
        QTest::addColumn<bool>("offersExt");
        QTest::addColumn<bool>("offersWlr");
        QTest::addColumn<QString>("pasting");
        QTest::newRow("neither") << false << false
                                 << u"the Xwayland clipboard (the compositor offers neither ext_data_control_manager_v1 nor "
                                    "zwlr_data_control_manager_v1)"_s;
        QTest::newRow("ext") << true << false << ext;
        QTest::newRow("zwlr") << false << true << wlr;
        QTest::newRow("both") << true << true << ext;
    }
    void injectorNamesThePastingWay()
    {
        QFETCH(bool, offersExt);
        QFETCH(bool, offersWlr);
        QFETCH(QString, pasting);
        QVERIFY(startCompositor(offersExt, offersWlr));
        const WaylandTextInjector injector([](QString* error) {
            *error = u"no uinput here"_s;
            return nullptr;
        });
        QVERIFY2(injector.description().contains(u"; pasting through "_s + pasting + u"; "_s), qPrintable(injector.description()));
    }
};

QTEST_GUILESS_MAIN(WaylandClipboardTest)
#include "WaylandClipboardTest.moc"
