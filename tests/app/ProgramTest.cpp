// The tolvane program's command line as a user meets it, run as a black box.
#include <QProcess>
#include <QTest>

namespace {
struct Run {
    int code = -1;
    QString out, err;
};

Run tolvane(const QStringList& args, const QMap<QString, QString>& env = {}, const QStringList& unset = {})
{
    QProcess p;
    QProcessEnvironment e = QProcessEnvironment::systemEnvironment();
    for (const QString& name : unset)
        e.remove(name);
    for (auto it = env.begin(); it != env.end(); ++it)
        e.insert(it.key(), it.value());
    p.setProcessEnvironment(e);
    p.start(QStringLiteral(TOLVANE_BINARY), args);
    p.waitForFinished(30000);
    return {p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1, QString::fromUtf8(p.readAllStandardOutput()),
            QString::fromUtf8(p.readAllStandardError())};
}
}  // namespace

class ProgramTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void helpAndVersion()
    {
        const Run help = tolvane({QStringLiteral("--help")});
        QCOMPARE(help.code, 0);
        QVERIFY(help.out.startsWith(QStringLiteral("Usage: tolvane")));
        QVERIFY(help.out.contains(QStringLiteral("--transcribe FILE")));
        const Run version = tolvane({QStringLiteral("--version")});
        QCOMPARE(version.code, 0);
        QCOMPARE(version.out, QStringLiteral("Tolvane " TOLVANE_VERSION "\n"));
    }

    void unknownOptionIsAUsageError()
    {
        const Run r = tolvane({QStringLiteral("--frobnicate")});
        QCOMPARE(r.code, 2);
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
        const Run r = tolvane({}, env, unset);
        QCOMPARE(r.code, 1);
        QCOMPARE(r.err.count(QLatin1Char('\n')), 1);
        QVERIFY2(r.err.startsWith(QStringLiteral("tolvane: ")), qPrintable(r.err));
        QVERIFY2(r.err.contains(QStringLiteral("tolvane --transcribe FILE")), qPrintable(r.err));
    }
};

QTEST_GUILESS_MAIN(ProgramTest)
#include "ProgramTest.moc"
