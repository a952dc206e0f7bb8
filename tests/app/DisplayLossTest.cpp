// The X server going away under the real tolvane in the middle of a dictation, as when the session
// ends or Xvfb crashes: tolvane ends with status 1 and one line saying why, and leaves no sound
// stream in the sound server and no process of its own behind.
#include "support/RecordingClient.h"
#include "support/Sound.h"
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

}  // namespace

class DisplayLossTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void xServerGoesAwayMidDictation()
    {
        AudioTest::PipeMicrophone microphone;
        QCOMPARE(microphone.start(), QString());
        XServer x;
        QCOMPARE(x.start(), QString());
        qputenv("DISPLAY", x.display().toLocal8Bit());
        const auto streams = [] { return AudioTest::pactl({QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("source-outputs")}); };
        const QStringList before = streams();  // the sound server's own, if any
        QProcess tolvane;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        tolvane.setProcessEnvironment(env);
        const TestSupport::LogMark mark;
        tolvane.start(TestSupport::tolvaneBinary(), {});
        QVERIFY(mark.waitFor(QStringLiteral("bootstrap: READY — hold ⌥ to dictate, or ⌥+Space to toggle."), 60000));
        // Never closed: closing a connection whose server is gone ends the process. (Kept where
        // leak checkers still reach it.)
        static Fingers* fingers = new Fingers;
        QVERIFY(fingers->ok());
        fingers->press(altL);
        QVERIFY(mark.waitFor(QStringLiteral("dictation: audio + transcriber running")));
        QVERIFY(streams().size() > before.size());
        const QList<qint64> children = childrenOf(tolvane.processId());
        QVERIFY(!tolvane.readAllStandardError().isEmpty());

        x.kill();
        QVERIFY(tolvane.waitForFinished(20000));
        QCOMPARE(tolvane.exitStatus(), QProcess::NormalExit);
        QCOMPARE(tolvane.exitCode(), 1);
        const QString why = QStringLiteral("bootstrap: the X display went away (error 1) — Tolvane ends");
        // Lines logged just before the kill may still come; after them, nothing but the one line.
        const QStringList after = QString::fromUtf8(tolvane.readAllStandardError()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QCOMPARE(after.value(after.size() - 1), QStringLiteral("Tolvane: ") + why);
        QVERIFY2(after.filter(QRegularExpression(QStringLiteral("^(?!Tolvane: )|X11|display"))).size() == 1, qPrintable(after.join(QLatin1Char('\n'))));
        QCOMPARE(TestSupport::logMessages().last(), why);
        TestSupport::waitUntil([&] { return streams() == before; });
        QCOMPARE(streams(), before);
        for (const qint64 child : children)
            QVERIFY2(::kill(static_cast<pid_t>(child), 0) != 0, qPrintable(QStringLiteral("process %1 is still there").arg(child)));
    }
};

QTEST_GUILESS_MAIN(DisplayLossTest)
#include "DisplayLossTest.moc"
