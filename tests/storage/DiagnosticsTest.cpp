#include "storage/Diagnostics.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTest>

#include <thread>

class DiagnosticsTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    // Runs first: the sandbox starts without the Tolvane folder.
    void firstCallCreatesFolderAndOneLineFile()
    {
        const QString dir = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QStringLiteral("/Tolvane");
        QVERIFY(!QDir(dir).exists());
        const int line = __LINE__ + 1;
        Diagnostics::log(QStringLiteral("prefs: startAtLogin = true"));
        Diagnostics::flush();
        QCOMPARE(Diagnostics::logFilePath(), dir + QStringLiteral("/diagnostic.log"));
        QFile file(Diagnostics::logFilePath());
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QString text = QString::fromUtf8(file.readAll());
        QCOMPARE(text.count(QLatin1Char('\n')), 1);
        const QRegularExpression format(
            QStringLiteral(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z \[DiagnosticsTest:%1\] prefs: startAtLogin = true\n$)")
                .arg(line));
        QVERIFY2(format.match(text).hasMatch(), qPrintable(text));
    }

    void sourceFieldIsFileNameWithoutExtension()
    {
        TestSupport::LogMark mark;
        Diagnostics::log(QStringLiteral("hotkey: OPTION DOWN"), "Tolvane/HotkeyManager.swift", 57);
        Diagnostics::log(QStringLiteral("x"), "/a/b.c/Name.tar.cpp", 3);
        const QStringList lines = TestSupport::logLines();
        QVERIFY(lines.at(lines.size() - 2).endsWith(QStringLiteral(" [HotkeyManager:57] hotkey: OPTION DOWN")));
        QVERIFY(lines.last().endsWith(QStringLiteral(" [Name.tar:3] x")));
    }

    void embeddedLineFeedIsWrittenAsIs()
    {
        Diagnostics::log(QStringLiteral("first half\nsecond half"));
        const QStringList lines = TestSupport::logLines();
        QVERIFY(lines.at(lines.size() - 2).endsWith(QStringLiteral("] first half")));
        QCOMPARE(lines.last(), QStringLiteral("second half"));
    }

    void linesFromTwoThreadsStayWholeAndInOrder()
    {
        const qsizetype before = TestSupport::logLines().size();
        constexpr int perThread = 2000;
        auto writer = [](QChar tag) {
            for (int i = 0; i < perThread; ++i)
                Diagnostics::log(QStringLiteral("thread %1 line %2 ").arg(tag).arg(i) + QString(60, tag));
        };
        std::thread a(writer, QLatin1Char('a'));
        std::thread b(writer, QLatin1Char('b'));
        a.join();
        b.join();
        const QStringList lines = TestSupport::logLines().mid(before);
        QCOMPARE(lines.size(), 2 * perThread);
        const QRegularExpression whole(QStringLiteral(R"(^\S+ \[DiagnosticsTest:\d+\] thread ([ab]) line (\d+) (a{60}|b{60})$)"));
        int next[2] = {0, 0};
        for (const QString& line : lines) {
            const auto m = whole.match(line);
            QVERIFY2(m.hasMatch(), qPrintable(line));
            const int t = m.captured(1) == QLatin1String("a") ? 0 : 1;
            QCOMPARE(m.captured(3).at(0), m.captured(1).at(0));
            QCOMPARE(m.captured(2).toInt(), next[t]++);  // each thread's lines in the order it logged them
        }
    }
};

QTEST_GUILESS_MAIN(DiagnosticsTest)
#include "DiagnosticsTest.moc"
