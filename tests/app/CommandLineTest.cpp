#include "app/CommandLine.h"

#include <QTest>

using Action = CommandLine::Action;
Q_DECLARE_METATYPE(CommandLine::Action)

class CommandLineTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void parse_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<Action>("action");
        QTest::addColumn<QString>("argument");
        QTest::newRow("nothing runs the app") << QStringList{} << Action::run << QString();
        QTest::newRow("shots with folder") << QStringList{QStringLiteral("--shots"), QStringLiteral("/tmp/s")} << Action::shots
                                           << QStringLiteral("/tmp/s");
        QTest::newRow("shots last") << QStringList{QStringLiteral("--shots")} << Action::shots << QString();
        QTest::newRow("transcribe") << QStringList{QStringLiteral("--transcribe"), QStringLiteral("a.wav"), QStringLiteral("--partials")}
                                    << Action::transcribe << QStringLiteral("a.wav");
        QTest::newRow("transcribe without file") << QStringList{QStringLiteral("--transcribe")} << Action::error << QString();
        QTest::newRow("cleanup") << QStringList{QStringLiteral("--cleanup"), QStringLiteral("tidy")} << Action::cleanup
                                 << QStringLiteral("tidy");
        QTest::newRow("unknown") << QStringList{QStringLiteral("--frobnicate")} << Action::error << QString();
        QTest::newRow("version") << QStringList{QStringLiteral("--version")} << Action::version << QString();
    }
    void parse()
    {
        QFETCH(QStringList, args);
        QFETCH(Action, action);
        QFETCH(QString, argument);
        const CommandLine cl = CommandLine::parse(QStringList{QStringLiteral("tolvane")} + args);
        QCOMPARE(cl.action, action);
        QCOMPARE(cl.argument, argument);
        if (action == Action::error)
            QVERIFY(!cl.error.isEmpty());
    }
};

QTEST_GUILESS_MAIN(CommandLineTest)
#include "CommandLineTest.moc"
