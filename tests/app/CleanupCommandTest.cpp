#include "storage/Preferences.h"
#include "support/FakeLlmServer.h"
#include "support/TestSupport.h"
#include "text/CleanupEngine.h"

#include <QJsonArray>
#include <QTest>

namespace {

// The real program as a user runs it, with no display at all.
TestSupport::ProgramRun runTolvane(const QStringList& args, const QByteArray& input)
{
    return TestSupport::runTolvane({.arguments = args, .input = input,
                                    .unset = {QStringLiteral("DISPLAY"), QStringLiteral("WAYLAND_DISPLAY"), QStringLiteral("QT_QPA_PLATFORM")},
                                    .timeoutMs = 30000});
}

QString userMessage(const FakeLlmServer& server)
{
    return server.chatRequests().value(0).json().value(QLatin1String("messages")).toArray().at(1).toObject()
        .value(QLatin1String("content")).toString();
}

}  // namespace

class CleanupCommandTest : public QObject {
    Q_OBJECT
    FakeLlmServer* server_ = nullptr;

private Q_SLOTS:
    void init()
    {
        server_ = new FakeLlmServer(this);
        QVERIFY(server_->listen());
        server_->configureCleanup();
    }

    void cleanup() { delete server_; }

    void printsTheCleanedText()
    {
        server_->chat = [](const QJsonObject&) {
            return FakeLlmServer::answer(QStringLiteral("<<<BEGIN TEXT>>>\n- Café at 9 ☕\n- Bring notes\n<<<END TEXT>>>"));
        };
        const auto run = runTolvane({QStringLiteral("--cleanup"), QStringLiteral("bullets")},
                                   "um café at nine, uh, and bring notes\n");
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out, QStringLiteral("- Café at 9 ☕\n- Bring notes\n"));
        // The terminal's final line feed is not part of the text the model sees.
        QCOMPARE(userMessage(*server_), CleanupEngine::prompt(QStringLiteral("um café at nine, uh, and bring notes")));
        QVERIFY2(run.err.contains(QStringLiteral("cleanup: mode=bullets in=36 out=27")), qPrintable(run.err));
    }

    void rawModePrintsStandardInputAsItCame()
    {
        const QByteArray input = "  two\r\nlines, no final line feed";
        const auto run = runTolvane({QStringLiteral("--cleanup"), QStringLiteral("raw")}, input);
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out.toUtf8(), input);
        QVERIFY(server_->requests.isEmpty());
    }

    void withoutAModelTheTextComesBackUnchangedWithAReason()
    {
        Preferences::shared().setValue(Settings::llmEndpoint, FakeLlmServer::closedEndpoint());
        const QByteArray input = "keep every word\nas said\n";
        const auto run = runTolvane({QStringLiteral("--cleanup"), QStringLiteral("tidy")}, input);
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out.toUtf8(), input);
        QVERIFY2(run.err.contains(QStringLiteral("tolvane: no language model available")) &&
                     run.err.contains(QStringLiteral("Connection refused")),
                 qPrintable(run.err));
    }

    void aFailingServerLeavesTheTextUnchanged()
    {
        server_->chat = [](const QJsonObject&) { return FakeLlmServer::error(500, QStringLiteral("out of memory")); };
        const auto run = runTolvane({QStringLiteral("--cleanup"), QStringLiteral("summary")}, "as spoken\n");
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out, QStringLiteral("as spoken\n"));
        QVERIFY2(run.err.contains(QStringLiteral("cleanup: error — the server answered HTTP 500: out of memory; pasting raw")),
                 qPrintable(run.err));
    }

    void unknownModeIsAnError()
    {
        const auto run = runTolvane({QStringLiteral("--cleanup"), QStringLiteral("shout")}, "text\n");
        QCOMPARE(run.exitCode, 2);
        QVERIFY(run.out.isEmpty());
        QVERIFY2(run.err.contains(QStringLiteral("unknown cleanup mode “shout”")), qPrintable(run.err));
        QVERIFY(server_->requests.isEmpty());
    }
};

QTEST_GUILESS_MAIN(CleanupCommandTest)
#include "CleanupCommandTest.moc"
