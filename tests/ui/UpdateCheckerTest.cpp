// "Check for Updates…" against feed files and a loopback HTTP server, and the release feed's formats.
#include "storage/Preferences.h"
#include "support/FakeLlmServer.h"
#include "support/TestSupport.h"
#include "ui/ReleaseFeed.h"
#include "ui/UpdateChecker.h"

#include <QFile>
#include <QSignalSpy>
#include <QTest>

using Outcome = UpdateChecker::Result::Outcome;

namespace {

// A feed file in the sandbox, as a file:// address.
QString feedFile(const QByteArray& body)
{
    static int n = 0;
    const QString path = qEnvironmentVariable("TOLVANE_TEST_SANDBOX") + QStringLiteral("/feed-%1").arg(++n);
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly) || f.write(body) != body.size())
        qFatal("cannot write %s", qPrintable(path));
    return QUrl::fromLocalFile(path).toString();
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

    void versions_data()
    {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<int>("order");
        QTest::newRow("numeric, not text") << "1.0.10" << "1.0.9" << 1;
        QTest::newRow("older") << "1.0.4" << "1.0.5" << -1;
        QTest::newRow("v prefix, missing part") << "v1.2" << "1.2.0" << 0;
        QTest::newRow("pre-release before release") << "2.0.0-rc1" << "2.0.0" << -1;
        QTest::newRow("pre-release after older") << "2.0.0-rc1" << "1.9.9" << 1;
        QTest::newRow("build ignored") << "1.0.5+build7" << "1.0.5" << 0;
    }
    void versions()
    {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(int, order);
        QCOMPARE((ReleaseFeed::compareVersions(a, b) > 0) - (ReleaseFeed::compareVersions(a, b) < 0), order);
    }

    void feeds_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("version");  // empty: unreadable
        QTest::addColumn<QString>("detail");   // the link when read, a word of the reason when not
        QTest::newRow("object") << QByteArray("{\"version\": \"1.2.0\", \"url\": \"https://example.org/1.2.0\"}") << "1.2.0"
                                << "https://example.org/1.2.0";
        QTest::newRow("release API") << QByteArray("{\"tag_name\": \"v1.3.1\", \"html_url\": \"x\"}") << "1.3.1" << "x";
        QTest::newRow("list, newest wins") << QByteArray("[{\"tag_name\": \"v1.1\"}, {\"tag_name\": \"v1.10\"}, {\"tag_name\": \"nightly\"}]")
                                           << "1.10" << "";
        QTest::newRow("plain text") << QByteArray("1.4.2\n") << "1.4.2" << "";
        QTest::newRow("appcast") << QByteArray(
            "<?xml version=\"1.0\"?><rss version=\"2.0\" xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\">"
            "<channel><title>Tolvane</title>"
            "<item><title>Tolvane 1.1.0</title><link>https://example.org/1.1.0</link>"
            "<enclosure url=\"https://example.org/t.tar.gz\" sparkle:version=\"110\" sparkle:shortVersionString=\"1.1.0\"/></item>"
            "<item><sparkle:shortVersionString>1.2.0</sparkle:shortVersionString><link>https://example.org/1.2.0</link></item>"
            "<item><title>Tolvane 0.9</title></item></channel></rss>") << "1.2.0" << "https://example.org/1.2.0";
        QTest::newRow("empty") << QByteArray() << "" << "empty";
        QTest::newRow("broken JSON") << QByteArray("{\"version\": ") << "" << "JSON";
        QTest::newRow("no version") << QByteArray("{\"name\": \"Tolvane\"}") << "" << "version";
        QTest::newRow("items without versions") << QByteArray("<rss><channel><item><title>soon</title></item>") << "" << "";
        QTest::newRow("a web page") << QByteArray("<html><body>Not here</body></html>") << "" << "";
        QTest::newRow("prose") << QByteArray("hello there") << "" << "";
    }
    void feeds()
    {
        QFETCH(QByteArray, body);
        QFETCH(QString, version);
        QFETCH(QString, detail);
        QString error;
        const auto release = ReleaseFeed::parse(body, &error);
        QCOMPARE(release.has_value(), !version.isEmpty());
        QVERIFY2((release ? release->version == version && release->link == detail : error.contains(detail)), qPrintable(error));
    }

    void outcomes_data()
    {
        QTest::addColumn<QString>("feed");
        QTest::addColumn<Outcome>("outcome");
        QTest::addColumn<QString>("says");
        QTest::newRow("newer, with notes") << feedFile("{\"version\": \"1.2.0\", \"url\": \"https://example.org/1.2.0\"}")
                                           << Outcome::newer << "Tolvane 1.2.0 is available; you have 1.0.5. "
                                           "Update it through your package manager.\n\nRelease notes: https://example.org/1.2.0";
        QTest::newRow("newer pre-release") << feedFile("1.0.6-beta") << Outcome::newer << "1.0.6-beta is available";
        QTest::newRow("same") << feedFile("1.0.5") << Outcome::upToDate << "Tolvane 1.0.5 is the newest version.";
        QTest::newRow("older") << feedFile("v1.0.4") << Outcome::upToDate << "newest version";
        QTest::newRow("moved away") << feedFile("<html>Moved to a new home</html>") << Outcome::unreadable << "feed-";
        QTest::newRow("not a feed over HTTP") << server.endpoint() + QStringLiteral("/models") << Outcome::unreadable
                                              << "names no version";
        QTest::newRow("missing page") << server.endpoint() + QStringLiteral("/feed") << Outcome::unreachable << "answered 404";
        QTest::newRow("nobody listens") << FakeLlmServer::closedEndpoint() << Outcome::unreachable << "could not reach";
        QTest::newRow("never answers") << silent.endpoint() + QStringLiteral("/models") << Outcome::unreachable << "no answer";
        QTest::newRow("not http") << "ftp://127.0.0.1/feed" << Outcome::unreachable << "not an http";
        QTest::newRow("unset") << " " << Outcome::notConfigured << "updateFeedUrl";
    }
    void outcomes()
    {
        QFETCH(QString, feed);
        QFETCH(Outcome, outcome);
        QFETCH(QString, says);
        UpdateChecker checker(QStringLiteral("1.0.5"));
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
        QSignalSpy finished(&checker, &UpdateChecker::finished);
        checker.checkAndReport();
        QVERIFY(checker.isChecking());
        checker.checkAndReport();  // a second click while checking starts nothing new
        QVERIFY(TestSupport::waitUntil([&] { return checker.reportBox() && checker.reportBox()->isVisible(); }));
        QVERIFY(checker.reportBox()->text().contains(QStringLiteral("names no version")));
        QCOMPARE(checker.reportBox()->icon(), QMessageBox::Warning);
        QTest::qWait(50);
        QCOMPARE(finished.size(), 1);
        QCOMPARE(server.requests.size(), 1);
    }
};

QTEST_MAIN(UpdateCheckerTest)
#include "UpdateCheckerTest.moc"
