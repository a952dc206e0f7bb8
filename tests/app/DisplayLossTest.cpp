// The X server or the Wayland compositor going away under the real tolvane in the middle of a
// dictation, as when the session ends or Xvfb crashes: tolvane ends with status 1 and one line
// saying why, and leaves no sound stream in the sound server and no process of its own behind.
// Told to end by a signal, it quits as its Quit does, with status 0.
#include "support/KeyPipe.h"
#include "support/RecordingClient.h"
#include "support/Sound.h"
#include "support/Sway.h"
#include "support/TestSupport.h"
#include "support/XServer.h"

#include <QDir>
#include <QRegularExpression>
#include <QTest>

#include <csignal>

namespace {

constexpr unsigned altL = 64;

// The processes whose parent is `pid`.
QList<qint64> childrenOf(qint64 pid)
{
    QList<qint64> out;
    for (const QString& entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        QFile stat(QStringLiteral("/proc/%1/stat").arg(entry));
        if (!stat.open(QIODevice::ReadOnly))
            continue;
        const QByteArray all = stat.readAll();
        // The fields after the command name, which is in parentheses and may hold blanks.
        if (all.mid(all.lastIndexOf(')') + 2).split(' ').value(1).toLongLong() == pid)
            out << entry.toLongLong();
    }
    return out;
}

QStringList soundStreams() { return AudioTest::pactl({QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("source-outputs")}); }

const QString& ready = TestSupport::readyLine;
const QString capturing = QStringLiteral("dictation: audio + transcriber running"),
              why = QStringLiteral("bootstrap: the X display went away (error 1) — Tolvane ends");

}  // namespace

class DisplayLossTest : public QObject {
    Q_OBJECT
    AudioTest::PipeMicrophone microphone_;
    QStringList before_;  // the sound server's own streams, if any
    QProcess tolvane_;

    void launch(const QMap<QString, QString>& session)
    {
        tolvane_.setProcessEnvironment(TestSupport::environmentWith(session));
        const TestSupport::LogMark mark;
        tolvane_.start(TestSupport::tolvaneBinary(), {});
        QVERIFY(mark.waitFor(ready, 60000));
    }

    // Whether the dictation started since `mark` records (a stream of Tolvane's own is open); its
    // child processes, and standard error read so far.
    bool capturingNow(const TestSupport::LogMark& mark, QList<qint64>& children)
    {
        if (!mark.waitFor(capturing))
            return false;
        children = childrenOf(tolvane_.processId());
        return soundStreams().size() > before_.size() && !tolvane_.readAllStandardError().isEmpty();
    }

    // Once the display is gone: status 1, the one line last on standard error (lines logged just
    // before may still come) and in the log, the streams as before, no child process left.
    void checkEnded(const QList<qint64>& children, int status = 1, const QString& line = why)
    {
        QVERIFY(tolvane_.waitForFinished(20000));
        QCOMPARE(tolvane_.exitStatus(), QProcess::NormalExit);
        QCOMPARE(tolvane_.exitCode(), status);
        // Qt Multimedia may still warn about the sound server as the program closes; Tolvane's own
        // last line is the one, and no other line speaks of the display.
        const QStringList after = QString::fromUtf8(tolvane_.readAllStandardError()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        const QStringList own = after.filter(QRegularExpression(QStringLiteral("^Tolvane: ")));
        QCOMPARE(own.value(own.size() - 1), QStringLiteral("Tolvane: ") + line);
        QVERIFY2(after.filter(QRegularExpression(QStringLiteral("X11|display"))).size() == (line == why), qPrintable(after.join(QLatin1Char('\n'))));
        QCOMPARE(TestSupport::logMessages().last(), line);
        TestSupport::waitUntil([&] { return soundStreams() == before_; });
        QCOMPARE(soundStreams(), before_);
        for (const qint64 child : children)
            QVERIFY2(::kill(static_cast<pid_t>(child), 0) != 0, qPrintable(QStringLiteral("process %1 is still there").arg(child)));
    }

private Q_SLOTS:
    void initTestCase()
    {
        QCOMPARE(microphone_.start(), QString());
        before_ = soundStreams();
    }

    void cleanup() { TestSupport::stop(tolvane_); }

    // tolvane on a private X server of `x`, dictating; false when it could not start to.
    bool dictatingOnX(XServer& x, QList<qint64>& children)
    {
        if (!x.start().isEmpty())
            return false;
        qputenv("DISPLAY", x.display().toLocal8Bit());
        launch({{QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb")}});
        const TestSupport::LogMark mark;
        // Never closed: closing a connection whose server is gone ends the process.
        static auto* kept = new QList<Fingers*>;  // never destroyed, so leak checkers still reach them
        Fingers* fingers = kept->emplace_back(new Fingers);
        fingers->press(altL);
        return fingers->ok() && capturingNow(mark, children);
    }

    void xServerGoesAwayMidDictation()
    {
        XServer x;
        QList<qint64> children;
        QVERIFY(dictatingOnX(x, children));
        x.kill();
        checkEnded(children);
    }

    void terminatedMidDictation()
    {
        XServer x;
        QList<qint64> children;
        QVERIFY(dictatingOnX(x, children));
        ::kill(static_cast<pid_t>(tolvane_.processId()), SIGTERM);
        checkEnded(children, 0, QStringLiteral("bootstrap: SIGTERM received — Tolvane quits"));
    }

    // The compositor ending takes its Xwayland, and with it Tolvane's windows, along.
    void compositorGoesAwayMidDictation()
    {
        SwaySession sway;
        QCOMPARE(sway.start(), QString());
        KeyPipe keyboard(AudioTest::sandboxPath(QStringLiteral("keyboard")));
        QMap<QString, QString> session = sway.clientEnvironment();
        session.insert(QStringLiteral("TOLVANE_INPUT_DEVICES"), keyboard.path());
        launch(session);
        QVERIFY(keyboard.connect());
        const TestSupport::LogMark mark;
        QVERIFY(keyboard.press(EvKey::leftAlt));
        QList<qint64> children;
        QVERIFY(capturingNow(mark, children));
        sway.stop();
        checkEnded(children);
    }
};

QTEST_GUILESS_MAIN(DisplayLossTest)
#include "DisplayLossTest.moc"
