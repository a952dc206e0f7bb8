// The real tolvane program in a headless sway session: its windows through Xwayland, its keys read
// from a keyboard that is a named pipe, its microphone a PulseAudio pipe fed with synthesised
// speech, and foot (a native Wayland terminal) holding the focus.
#include "support/KeyPipe.h"
#include "support/Sound.h"
#include "support/Speech.h"
#include "support/Sway.h"
#include "support/TestSupport.h"
#include "storage/Preferences.h"
#include "storage/TranscriptStore.h"
#include "ui/pill/OverlayPlacement.h"

#include <QRegularExpression>
#include <QFile>
#include <QTest>

using namespace Qt::StringLiterals;

class WaylandSessionTest : public QObject {
    Q_OBJECT
    SwaySession sway_;
    AudioTest::PipeMicrophone microphone_;
    std::unique_ptr<KeyPipe> keyboard_;
    QProcess tolvane_;

    // Whether the pill is on screen at this width.
    bool pillIs(int width)
    {
        const bool seen = TestSupport::waitUntil([&] {
            const QList<QRect> windows = sway_.x11Windows(u"Tolvane"_s);
            return std::any_of(windows.begin(), windows.end(), [&](const QRect& r) { return r.width() == width; });
        });
        if (!seen)
            qWarning() << "windows titled Tolvane:" << sway_.x11Windows(u"Tolvane"_s);
        return seen;
    }

    // Presses the dictation key and keeps it down until the microphone is on.
    bool holdUntilListening(const TestSupport::LogMark& mark)
    {
        return keyboard_->press(EvKey::leftAlt) && mark.waitFor(u"dictation: audio + transcriber running"_s);
    }
    bool tap(std::uint16_t key) { return keyboard_->press(key) && keyboard_->release(key); }

private Q_SLOTS:
    void initTestCase()
    {
        // sway gives floating windows at least 75x50 unless told otherwise; the pill is smaller.
        QCOMPARE(sway_.start({u"floating_minimum_size 1 x 1"_s, SwaySession::recordingTerminal()}), QString());
        QCOMPARE(microphone_.start(), QString());
        microphone_.listen();  // hears all the time, as a real microphone does
        keyboard_ = std::make_unique<KeyPipe>(AudioTest::sandboxPath(u"keyboard"_s));
        QMap<QString, QString> session = sway_.clientEnvironment();
        session.insert(u"TOLVANE_INPUT_DEVICES"_s, keyboard_->path());
        tolvane_.setProcessEnvironment(TestSupport::environmentWith(session));
        tolvane_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        QVERIFY2(TestSupport::waitUntil([] { return QFile::exists(SwaySession::terminalOutput()); }, 20000), "foot did not start");
        Preferences::shared().setCleanupMode(CleanupMode::raw);  // exactly what was said
        const TestSupport::LogMark mark;
        tolvane_.start(TestSupport::tolvaneBinary(), {});
        QVERIFY2(mark.waitFor(TestSupport::readyLine, 60000), "tolvane did not become ready");
        QVERIFY(!mark.messages()
                     .filter(QRegularExpression(u"^hotkey: Wayland session — keys read from /dev/input \\(evdev\\); typing through "
                                                "zwp_virtual_keyboard_v1 with Tolvane's own keymap; pasting through "
                                                "zwlr_data_control_manager_v1; terminals told by"_s))
                     .isEmpty());
        QVERIFY(keyboard_->connect());
        QVERIFY2(pillIs(OverlayPlacement::idleWidth), "the idle pill is not on screen");
    }

    void cleanupTestCase()
    {
        keyboard_.reset();
        TestSupport::stop(tolvane_);
        microphone_.stop();
        sway_.stop();
    }

    void holdChordThenTapEnds()
    {
        const TestSupport::LogMark mark;
        QVERIFY(holdUntilListening(mark));
        QVERIFY(tap(EvKey::space));
        QVERIFY(mark.waitFor(u"state: HOLD → TOGGLE (⌥+Space while holding)"_s));
        QVERIFY2(pillIs(OverlayPlacement::expandedWidth), "the hands-free pill with its buttons is not on screen");
        QVERIFY(keyboard_->release(EvKey::leftAlt));
        QVERIFY(tap(EvKey::leftAlt));
        QVERIFY(mark.waitFor(u"state: TOGGLE → END (⌥ tap)"_s));
        QVERIFY(mark.waitFor(u"dictation: finishing (paste=true, fromToggle=true)"_s));
        QVERIFY2(pillIs(OverlayPlacement::idleWidth), "the pill did not return to idle");
    }

    void heldDictationIsInserted()
    {
        const QString said = u"pick up milk and eggs on the way home"_s;
        const QByteArray speech = AudioTest::pcm16(SpeechTest::synthesize(said));
        QVERIFY2(!speech.isEmpty(), "festival and sox are needed (scripts/setup.sh --test installs them)");
        const TestSupport::LogMark mark;
        QVERIFY(holdUntilListening(mark));
        microphone_.speak(speech);
        QTest::qWait(300);
        QVERIFY(keyboard_->release(EvKey::leftAlt));
        QVERIFY(mark.waitFor(u"dictation: pasted=true (leadingSpace=false)"_s, 30000));
        QList<TranscriptEntry> saved;
        QVERIFY(TestSupport::waitUntil([&] { return !(saved = TranscriptStore(TranscriptStore::fileURL()).entries()).isEmpty(); }));
        const QString text = saved.last().text;
        QVERIFY2(SpeechTest::wordsHeard(said, text) >= 5, qPrintable(text));
        // The words reach the native Wayland terminal that has the focus.
        QString typed;
        TestSupport::waitUntil([&] {
            QFile terminal(SwaySession::terminalOutput());
            return terminal.open(QIODevice::ReadOnly) && (typed = QString::fromUtf8(terminal.readAll())).contains(text);
        });
        QVERIFY2(typed.contains(text), qPrintable(u"foot got: "_s + typed));
    }

    void escapeDiscards()
    {
        const TestSupport::LogMark mark;
        QVERIFY(holdUntilListening(mark));
        QVERIFY(tap(EvKey::esc));
        QVERIFY(mark.waitFor(u"dictation: DISCARD"_s));
        QVERIFY(keyboard_->release(EvKey::leftAlt));
        QVERIFY(mark.messages().filter(u"finishing"_s).isEmpty());
    }
};

QTEST_MAIN(WaylandSessionTest)
#include "WaylandSessionTest.moc"
