// The tolvane program's command line as a user meets it, run as a black box.
#include "support/TestSupport.h"

#include <QTest>

using TestSupport::ProgramRun;

class ProgramTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void helpAndVersion()
    {
        const ProgramRun help = TestSupport::runTolvane({.arguments = {QStringLiteral("--help")}});
        QCOMPARE(help.exitCode, 0);
        QVERIFY(help.out.startsWith(QStringLiteral("Usage: tolvane")));
        QVERIFY(help.out.contains(QStringLiteral("--transcribe FILE")));
        const ProgramRun version = TestSupport::runTolvane({.arguments = {QStringLiteral("--version")}});
        QCOMPARE(version.exitCode, 0);
        QCOMPARE(version.out, QStringLiteral("Tolvane " TOLVANE_VERSION "\n"));
    }

    void unknownOptionIsAUsageError()
    {
        const ProgramRun r = TestSupport::runTolvane({.arguments = {QStringLiteral("--frobnicate")}});
        QCOMPARE(r.exitCode, 2);
        QCOMPARE(r.err, QStringLiteral("tolvane: unknown option --frobnicate (try --help)\n"));
    }

    void withoutADisplayItSaysSoInOneLine_data()
    {
        QTest::addColumn<QString>("display");
        QTest::newRow("no DISPLAY") << QString();
        QTest::newRow("display that does not answer") << QStringLiteral(":4093");
    }
    void withoutADisplayItSaysSoInOneLine()
    {
        QFETCH(QString, display);
        QMap<QString, QString> env;
        QStringList unset{QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("WAYLAND_DISPLAY")};
        if (display.isEmpty())
            unset << QStringLiteral("DISPLAY");
        else
            env.insert(QStringLiteral("DISPLAY"), display);
        const ProgramRun r = TestSupport::runTolvane({.set = env, .unset = unset});
        QCOMPARE(r.exitCode, 1);
        QCOMPARE(r.err.count(QLatin1Char('\n')), 1);
        QVERIFY2(r.err.startsWith(QStringLiteral("tolvane: ")), qPrintable(r.err));
        QVERIFY2(r.err.contains(QStringLiteral("tolvane --transcribe FILE")), qPrintable(r.err));
    }
};

QTEST_GUILESS_MAIN(ProgramTest)
#include "ProgramTest.moc"
