// "Check for Updates…" against a small HTTP server on 127.0.0.1 that answers as each case needs.
#include "storage/Preferences.h"
#include "support/TestSupport.h"
#include "ui/ReleaseFeed.h"
#include "ui/UpdateChecker.h"

#include <QMessageBox>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

namespace {

// Answers every request with one status and body; with `silent` it accepts and never answers.
class FeedServer : public QObject {
public:
    int status = 200;
    QByteArray body;
    bool silent = false;
    QByteArray lastRequest;

    FeedServer()
    {
        QVERIFY(server_.listen(QHostAddress::LocalHost));
        connect(&server_, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket* socket = server_.nextPendingConnection()) {
                connect(socket, &QTcpSocket::readyRead, socket, [this, socket] {
                    lastRequest += socket->readAll();
                    if (silent || !lastRequest.contains("\r\n\r\n"))
                        return;
                    const QByteArray reason = status == 200 ? "OK" : status == 404 ? "Not Found" : "Error";
                    socket->write("HTTP/1.1 " + QByteArray::number(status) + ' ' + reason +
                                  "\r\nContent-Type: application/octet-stream\r\nContent-Length: " +
                                  QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n" + body);
                    socket->disconnectFromHost();
                });
            }
        });
    }
    QString url(const char* path = "/feed") const
    {
        return QStringLiteral("http://127.0.0.1:%1%2").arg(server_.serverPort()).arg(QLatin1String(path));
    }

private:
    QTcpServer server_;
};

UpdateChecker::Result checkNow(UpdateChecker& checker, const QString& feed)
{
    UpdateChecker::Result result;
    TestSupport::run([](UpdateChecker& c, QString f, UpdateChecker::Result& out) -> QCoro::Task<> {
        out = co_await c.check(f);
    }(checker, feed, result));
    return result;
}

using Outcome = UpdateChecker::Result::Outcome;

}  // namespace

class UpdateCheckerTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void versionsOrderAsReleasesDo()
    {
        QVERIFY(ReleaseFeed::compareVersions(QStringLiteral("1.0.10"), QStringLiteral("1.0.9")) > 0);
        QVERIFY(ReleaseFeed::compareVersions(QStringLiteral("v1.2"), QStringLiteral("1.2.0")) == 0);
        QVERIFY(ReleaseFeed::compareVersions(QStringLiteral("2.0.0-rc1"), QStringLiteral("2.0.0")) < 0);
        QVERIFY(ReleaseFeed::compareVersions(QStringLiteral("2.0.0-rc1"), QStringLiteral("1.9.9")) > 0);
        QVERIFY(ReleaseFeed::compareVersions(QStringLiteral("1.0.5+build7"), QStringLiteral("1.0.5")) == 0);
        QVERIFY(ReleaseFeed::compareVersions(QStringLiteral("1.0.4"), QStringLiteral("1.0.5")) < 0);
        QVERIFY(ReleaseFeed::isVersion(QStringLiteral("v3")));
        QVERIFY(!ReleaseFeed::isVersion(QStringLiteral("latest")));
    }

    void feedsInTheirUsualShapes()
    {
        const QByteArray object = "{\"version\": \"1.2.0\", \"url\": \"https://example.org/1.2.0\"}";
        const QByteArray tagged = "{\"tag_name\": \"v1.3.1\", \"html_url\": \"x\"}";
        const QByteArray list = "[{\"tag_name\": \"v1.1\"}, {\"tag_name\": \"v1.10\"}, {\"tag_name\": \"nightly\"}]";
        const QByteArray nameless = "{\"name\": \"Tolvane\"}";
        QCOMPARE(ReleaseFeed::parse(object)->link, QStringLiteral("https://example.org/1.2.0"));
        QCOMPARE(ReleaseFeed::parse(tagged)->version, QStringLiteral("1.3.1"));
        QCOMPARE(ReleaseFeed::parse(list)->version, QStringLiteral("1.10"));
        QCOMPARE(ReleaseFeed::parse("1.4.2\n")->version, QStringLiteral("1.4.2"));
        const QByteArray appcast = "<?xml version=\"1.0\"?>\n"
            "<rss version=\"2.0\" xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\">\n"
            " <channel><title>Tolvane</title>\n"
            "  <item><title>Tolvane 1.1.0</title><link>https://example.org/1.1.0</link>\n"
            "   <enclosure url=\"https://example.org/t-1.1.0.tar.gz\" sparkle:version=\"110\" sparkle:shortVersionString=\"1.1.0\"/></item>\n"
            "  <item><title>Tolvane 1.2.0</title><sparkle:shortVersionString>1.2.0</sparkle:shortVersionString>\n"
            "   <link>https://example.org/1.2.0</link></item>\n"
            "  <item><title>Tolvane 0.9</title></item>\n"
            " </channel></rss>";
        const auto release = ReleaseFeed::parse(appcast);
        QVERIFY(release);
        QCOMPARE(release->version, QStringLiteral("1.2.0"));
        QCOMPARE(release->link, QStringLiteral("https://example.org/1.2.0"));

        QString error;
        QVERIFY(!ReleaseFeed::parse("", &error));
        QVERIFY(error.contains(QStringLiteral("empty")));
        QVERIFY(!ReleaseFeed::parse("{\"version\": ", &error));
        QVERIFY(error.contains(QStringLiteral("JSON")));
        QVERIFY(!ReleaseFeed::parse(nameless, &error));
        QVERIFY(error.contains(QStringLiteral("version")));
        QVERIFY(!ReleaseFeed::parse("<rss><channel><item><title>soon</title></item>", &error));
        QVERIFY(!ReleaseFeed::parse("<html><body>Not here</body></html>", &error));
        QVERIFY(!ReleaseFeed::parse("hello there", &error));
    }

    void answersFromAFeedOnLoopback()
    {
        FeedServer server;
        UpdateChecker checker(QStringLiteral("1.0.5"));

        server.body = "{\"version\": \"1.2.0\", \"url\": \"https://example.org/1.2.0\"}";
        UpdateChecker::Result r = checkNow(checker, server.url());
        QCOMPARE(r.outcome, Outcome::newer);
        QCOMPARE(r.latestVersion, QStringLiteral("1.2.0"));
        QVERIFY(r.message.contains(QStringLiteral("Tolvane 1.2.0 is available")));
        QVERIFY(r.message.contains(QStringLiteral("1.0.5")));
        QVERIFY(r.message.contains(QStringLiteral("https://example.org/1.2.0")));
        QVERIFY(server.lastRequest.startsWith("GET /feed HTTP/1.1"));

        for (const QByteArray& same : {QByteArray("1.0.5"), QByteArray("v1.0.4"), QByteArray("1.0.6-beta")}) {
            server.body = same;
            r = checkNow(checker, server.url());
            QCOMPARE(r.outcome, same == "1.0.6-beta" ? Outcome::newer : Outcome::upToDate);
        }
        server.body = "1.0.5";
        QCOMPARE(checkNow(checker, server.url()).message, QStringLiteral("Tolvane 1.0.5 is the newest version."));

        server.body = "<html>Moved to a new home</html>";
        r = checkNow(checker, server.url());
        QCOMPARE(r.outcome, Outcome::unreadable);
        QVERIFY(r.message.contains(server.url()));

        server.status = 404;
        server.body = "gone";
        r = checkNow(checker, server.url());
        QCOMPARE(r.outcome, Outcome::unreachable);
        QVERIFY2(r.message.contains(QStringLiteral("404")), qPrintable(r.message));
    }

    void unreachableOrUnsetFeedsSaySo()
    {
        UpdateChecker checker(QStringLiteral("1.0.5"));
        Preferences::shared().setValue(Settings::updateFeedUrl, QString());
        UpdateChecker::Result r;
        TestSupport::run([](UpdateChecker& c, UpdateChecker::Result& out) -> QCoro::Task<> {
            out = co_await c.check();
        }(checker, r));
        QCOMPARE(r.outcome, Outcome::notConfigured);
        QVERIFY(r.message.contains(QStringLiteral("updateFeedUrl")));

        // Nothing listens on the port any more.
        quint16 port = 0;
        {
            QTcpServer gone;
            QVERIFY(gone.listen(QHostAddress::LocalHost));
            port = gone.serverPort();
        }
        r = checkNow(checker, QStringLiteral("http://127.0.0.1:%1/feed").arg(port));
        QCOMPARE(r.outcome, Outcome::unreachable);
        QVERIFY(r.message.startsWith(QStringLiteral("Tolvane could not reach the release feed")));

        // A server that accepts and never answers runs into the time limit.
        FeedServer silent;
        silent.silent = true;
        checker.setTimeout(300);
        r = checkNow(checker, silent.url());
        QCOMPARE(r.outcome, Outcome::unreachable);
        QVERIFY2(r.message.contains(QStringLiteral("no answer")), qPrintable(r.message));

        r = checkNow(checker, QStringLiteral("ftp://127.0.0.1/feed"));
        QCOMPARE(r.outcome, Outcome::unreachable);
        QVERIFY(r.message.contains(QStringLiteral("not an http")));
    }

    void theUsersCheckReadsTheSettingAndShowsTheAnswer()
    {
        FeedServer server;
        server.body = "{\"tag_name\": \"v9.0.0\"}";
        Preferences::shared().setValue(Settings::updateFeedUrl, server.url("/releases/latest"));
        UpdateChecker checker(QStringLiteral("1.0.5"));
        TestSupport::LogMark mark;
        checker.checkAndReport();
        QVERIFY(checker.isChecking());
        checker.checkAndReport();  // a second click while checking starts nothing new
        QVERIFY(TestSupport::waitUntil([&] { return checker.reportBox() && checker.reportBox()->isVisible(); }));
        QVERIFY(!checker.isChecking());
        QVERIFY(checker.reportBox()->text().contains(QStringLiteral("Tolvane 9.0.0 is available")));
        QCOMPARE(server.lastRequest.count("GET /releases/latest"), 1);
        QVERIFY(mark.messages().contains(QStringLiteral("update: newest release 9.0.0, running 1.0.5")));
    }
};

QTEST_MAIN(UpdateCheckerTest)
#include "UpdateCheckerTest.moc"
