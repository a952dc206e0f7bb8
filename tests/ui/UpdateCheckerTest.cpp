// "Check for Updates…" against feed files of every shape and loopback HTTP servers.
#include "storage/Preferences.h"
#include "support/FakeLlmServer.h"
#include "support/TestSupport.h"
#include "ui/UpdateChecker.h"

#include <QFile>
#include <QTest>

using Outcome = UpdateChecker::Result::Outcome;

namespace {

// A feed file in the sandbox, as a file:// address.
QString feedFile(const QByteArray& body)
{
    static int n = 0;
    const QString path = qEnvironmentVariable("TOLVANE_TEST_SANDBOX") + QStringLiteral("/feed-%1").arg(++n);
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(body) == body.size() ? QUrl::fromLocalFile(path).toString() : QString();
}

}  // namespace

class UpdateCheckerTest : public QObject {
    Q_OBJECT
    FakeLlmServer server, silent;  // an HTTP server that is no feed, and one that never answers

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(server.listen() && silent.listen());
        silent.answerModelList = false;
    }

    void outcomes_data()
    {
        QTest::addColumn<QString>("running");
        QTest::addColumn<QString>("feed");
        QTest::addColumn<Outcome>("outcome");
        QTest::addColumn<QString>("says");
        const auto row = [](const char* name, const char* running, const QString& feed, Outcome outcome, const char* says) {
            QTest::newRow(name) << QString::fromLatin1(running) << feed << outcome << QString::fromUtf8(says);
        };
        // Versions order as releases do.
        row("numeric, not text", "1.0.9", feedFile("1.0.10"), Outcome::newer, "Tolvane 1.0.10 is available; you have 1.0.9.");
        row("older", "1.0.5", feedFile("v1.0.4\n"), Outcome::upToDate, "Tolvane 1.0.5 is the newest version.");
        row("v prefix, missing part", "1.2.0", feedFile("v1.2"), Outcome::upToDate, "newest");
        row("pre-release before its release", "2.0.0", feedFile("2.0.0-rc1"), Outcome::upToDate, "newest");
        row("pre-release after older", "1.9.9", feedFile("2.0.0-rc1"), Outcome::newer, "2.0.0-rc1 is available");
        row("build ignored", "1.0.5", feedFile("1.0.5+build7"), Outcome::upToDate, "newest");
        // Feeds in their usual shapes.
        row("object with notes", "1.0.5", feedFile("{\"version\": \"1.2.0\", \"url\": \"https://example.org/1.2.0\"}"),
            Outcome::newer, "Update it through your package manager.\n\nRelease notes: https://example.org/1.2.0");
        row("release API", "1.0.5", feedFile("{\"tag_name\": \"v1.3.1\", \"html_url\": \"https://x\"}"), Outcome::newer,
            "1.3.1 is available; you have 1.0.5. Update it through your package manager.\n\nRelease notes: https://x");
        row("list, newest wins", "1.2", feedFile("[{\"tag_name\": \"v1.1\"}, {\"tag_name\": \"v1.10\"}, {\"tag_name\": \"nightly\"}]"),
            Outcome::newer, "Tolvane 1.10 is available");
        row("appcast", "1.0.5", feedFile(
            "<?xml version=\"1.0\"?><rss version=\"2.0\" xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\">"
            "<channel><title>Tolvane</title>"
            "<item><title>Tolvane 1.1.0</title><link>https://example.org/1.1.0</link>"
            "<enclosure url=\"https://example.org/t.tar.gz\" sparkle:version=\"110\" sparkle:shortVersionString=\"1.1.0\"/></item>"
            "<item><sparkle:shortVersionString>1.2.0</sparkle:shortVersionString><link>https://example.org/1.2.0</link></item>"
            "<item><title>Tolvane 0.9</title></item></channel></rss>"),
            Outcome::newer, "Tolvane 1.2.0 is available; you have 1.0.5. Update it through your package manager.\n\n"
            "Release notes: https://example.org/1.2.0");
        // Feeds that name no version.
        row("empty", "1.0.5", feedFile(""), Outcome::unreadable, "empty");
        row("broken JSON", "1.0.5", feedFile("{\"version\": "), Outcome::unreadable, "JSON");
        row("JSON without a version", "1.0.5", feedFile("{\"name\": \"Tolvane\"}"), Outcome::unreadable, "version");
        row("items without versions", "1.0.5", feedFile("<rss><channel><item><title>soon</title></item>"), Outcome::unreadable, "");
        row("a web page", "1.0.5", feedFile("<html><body>Moved</body></html>"), Outcome::unreadable, "names no version");
        row("prose", "1.0.5", feedFile("hello there"), Outcome::unreadable, "names no version");
        row("not a feed over HTTP", "1.0.5", server.endpoint() + QStringLiteral("/models"), Outcome::unreadable, "names no version");
        // Feeds that cannot be reached, or none at all.
        row("missing page", "1.0.5", server.endpoint() + QStringLiteral("/feed"), Outcome::unreachable, "answered 404");
        row("nobody listens", "1.0.5", FakeLlmServer::closedEndpoint(), Outcome::unreachable, "could not reach");
        row("never answers", "1.0.5", silent.endpoint() + QStringLiteral("/models"), Outcome::unreachable, "no answer");
        row("not http", "1.0.5", QStringLiteral("ftp://127.0.0.1/feed"), Outcome::unreachable, "not an http");
        row("unset", "1.0.5", QStringLiteral(" "), Outcome::notConfigured, "updateFeedUrl");
    }
    void outcomes()
    {
        QFETCH(QString, running);
        QFETCH(QString, feed);
        QFETCH(Outcome, outcome);
        QFETCH(QString, says);
        UpdateChecker checker(running);
        checker.setTimeout(300);
        const UpdateChecker::Result r = TestSupport::await(checker.check(feed));
        QCOMPARE(r.outcome, outcome);
        QVERIFY2(r.message.contains(says), qPrintable(r.message));
    }

    void theUsersCheckReadsTheSettingAndShowsTheAnswer()
    {
        Preferences::shared().setValue(Settings::updateFeedUrl, server.endpoint() + QStringLiteral("/models"));
        server.requests.clear();
        UpdateChecker checker(QStringLiteral("1.0.5"));
        checker.checkAndReport();
        QVERIFY(checker.isChecking());
        checker.checkAndReport();  // a second click while checking starts nothing new
        QVERIFY(TestSupport::waitUntil([&] { return checker.reportBox() && checker.reportBox()->isVisible(); }));
        QVERIFY(checker.reportBox()->text().contains(QStringLiteral("names no version")));
        QCOMPARE(checker.reportBox()->icon(), QMessageBox::Warning);
        QTest::qWait(50);
        QCOMPARE(server.requests.size(), 1);
    }
};

QTEST_MAIN(UpdateCheckerTest)
#include "UpdateCheckerTest.moc"
