// Snippets from the stored list, and cleanup through a loopback model server that must never lose the spoken text.
#include "storage/Preferences.h"
#include "support/FakeLlmServer.h"
#include "support/TestSupport.h"
#include "text/CleanupEngine.h"
#include "text/SnippetStore.h"

#include <QJsonArray>
#include <QTest>

using namespace Qt::StringLiterals;
using TestSupport::await;

namespace {
const QString key = u"snippets"_s;
const QByteArray good = R"({"id":"6F1C2D3E-4B5A-4C6D-8E7F-0A1B2C3D4E5F","trigger":"a","replacement":"b"})";

Snippet make(const QString& trigger, const QString& replacement) { return Snippet{QUuid::createUuid(), trigger, replacement}; }

// A call left to run in the background; `out` is set once it returned.
QCoro::Task<> cleanInto(CleanupEngine& engine, QString text, std::optional<QString>& out)
{
    out = co_await engine.process(text, CleanupMode::tidy);
}

// status 0: the server goes away instead of answering; expected empty: the input; logLine empty: some error.
struct Answer { QString input; int status; QByteArray body; QString expected, logLine; };
// endpoint empty: the test server's; modelsStatus 0: the model list never comes.
struct Unavailable { QString endpoint; QStringList models; int modelsStatus; QString wantedModel, reasonPart; };

QStringList cleanupLines(const TestSupport::LogMark& mark) { return mark.messages().filter(u"cleanup: "_s); }
QString content(const QJsonObject& body, int i) { return body[u"messages"_s].toArray().at(i).toObject()[u"content"_s].toString(); }
}  // namespace

class TextTest : public QObject {
    Q_OBJECT
    FakeLlmServer* server_ = nullptr;

private Q_SLOTS:
    void init()
    {
        delete server_;  // the last one goes with the test object
        server_ = new FakeLlmServer(this);
        QVERIFY(server_->listen());
        server_->configureCleanup();
    }

    // Data that does not decode as a whole reads as no snippets, stays as it is until the next save and
    // is kept under another key, which that save leaves alone; the save stores a compact JSON array
    // with canonical upper-case ids, as other versions read it.
    void storedSnippetsAreReadOnlyWhenWhole_data()
    {
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<QStringList>("triggers");
        const QStringList none;
        QTest::newRow("nothing stored") << QByteArray() << none;
        QTest::newRow("by others: free key order, lower-case id") << QByteArray(R"([{"replacement":"R1","trigger":"one","id":"6f1c2d3e-4b5a-4c6d-8e7f-0a1b2c3d4e5f"}])") << QStringList{u"one"_s};
        QTest::newRow("not json") << QByteArray("not json at all") << none;
        QTest::newRow("object, not array") << good << none;
        QTest::newRow("one element lacks replacement") << "[" + good + R"(,{"id":"7F1C2D3E-4B5A-4C6D-8E7F-0A1B2C3D4E5F","trigger":"b"}])" << none;
        QTest::newRow("id not a uuid") << QByteArray(R"([{"id":"42","trigger":"a","replacement":"b"}])") << none;
        QTest::newRow("element not an object") << "[" + good + ",\"x\"]" << none;
    }
    void storedSnippetsAreReadOnlyWhenWhole()
    {
        QFETCH(QByteArray, data);
        QFETCH(QStringList, triggers);
        data.isNull() ? Preferences::shared().remove(key) : Preferences::shared().setData(key, data);
        QStringList loaded;
        for (const Snippet& s : SnippetStore::load())
            loaded << s.trigger;
        QCOMPARE(loaded, triggers);
        QCOMPARE(SnippetStore::expand(u"snippet a"_s), std::nullopt);
        QCOMPARE(Preferences::shared().dataValue(key).value_or(QByteArray()), data);  // reading never rewrites it
        const Snippet fresh = make(u"a"_s, u"new \"line\"\n"_s);
        SnippetStore::save({fresh});
        const bool damaged = !data.isEmpty() && triggers.isEmpty();
        QCOMPARE(Preferences::shared().dataValue(key + u".damaged"_s), damaged ? std::optional(data) : std::nullopt);
        Preferences::shared().remove(key + u".damaged"_s);
        QCOMPARE(SnippetStore::load(), QList<Snippet>{fresh});
        QCOMPARE(SnippetStore::expand(u"snippet a"_s), std::optional<QString>(fresh.replacement));  // no stale copy
        QCOMPARE(Preferences::shared().dataValue(key).value_or(QByteArray()),
                 "[{\"id\":\"" + fresh.id.toString(QUuid::WithoutBraces).toUpper().toUtf8() + "\",\"replacement\":\"new \\\"line\\\"\\n\",\"trigger\":\"a\"}]");
    }

    void spokenSnippetCommandsExpand_data()
    {
        QTest::addColumn<QString>("spoken");
        QTest::addColumn<QString>("expected");  // empty: no expansion
        const QString mail = u"Jane Doe <jane@example.org>\nACME Ltd."_s;
        QTest::newRow("several blanks after the word") << u"snippet     work email"_s << mail;
        QTest::newRow("snip it, capitals, trailing punctuation") << u"Snip it Work email?!.;:,"_s << mail;
        QTest::newRow("surrounding white space and line breaks") << u"\n  SNIPPET WORK EMAIL \t\n"_s << mail;
        QTest::newRow("prefix not at the start") << u"please snippet work email"_s << QString();
        QTest::newRow("extra words after the trigger") << u"snippet work email please"_s << QString();
        QTest::newRow("command word and blanks only") << u"snippet    ."_s << QString();
        QTest::newRow("punctuation inside stays") << u"snippet, work email"_s << QString();
        QTest::newRow("line break inside the remainder") << u"snippet work\nemail"_s << QString();
        QTest::newRow("stored trigger with blanks around") << u"snippet greeting"_s << u"Hello!"_s;
        QTest::newRow("stored trigger with a full stop never matches") << u"snippet sign off."_s << QString();
        QTest::newRow("same trigger twice: earlier wins") << u"snip it dup"_s << u"first"_s;
    }
    void spokenSnippetCommandsExpand()
    {
        QFETCH(QString, spoken);
        QFETCH(QString, expected);
        SnippetStore::save({make(u"Work Email"_s, u"Jane Doe <jane@example.org>\nACME Ltd."_s), make(u"  Greeting\t"_s, u"Hello!"_s),
                            make(u"sign off."_s, u"Cheers"_s), make(u"dup"_s, u"first"_s), make(u"DUP"_s, u"second"_s)});
        QCOMPARE(SnippetStore::expand(spoken), expected.isEmpty() ? std::nullopt : std::optional<QString>(expected));
    }

    // The configured model on the configured server (a loopback name, blanks and slashes around it).
    void eachCleanupModeAsksWithItsOwnTask_data()
    {
        QTest::addColumn<CleanupMode>("mode");
        QTest::addColumn<QString>("task");
        QTest::newRow("tidy") << CleanupMode::tidy << u"lightly edit the text"_s;
        QTest::newRow("bullets") << CleanupMode::bullets << u"concise bullet points"_s;
        QTest::newRow("summary") << CleanupMode::summary << u"shorter, clearer version"_s;
    }
    void eachCleanupModeAsksWithItsOwnTask()
    {
        QFETCH(CleanupMode, mode);
        QFETCH(QString, task);
        server_->models = {u"first-model"_s, u"second-model"_s};
        server_->chat = [](const QJsonObject&) { return FakeLlmServer::answer(u"\n  I want to go home.\n"_s); };
        Preferences::shared().setValue(Settings::llmModel, u"second-model"_s);
        Preferences::shared().setValue(Settings::llmEndpoint, u" http://localhost:%1/v1/ "_s.arg(server_->port()));
        CleanupEngine engine;
        const TestSupport::LogMark mark;
        const QString text = u"  um I I want to go uh home\n"_s;
        QCOMPARE(await(engine.process(text, mode)), u"I want to go home."_s);
        QCOMPARE(server_->requests.size(), qsizetype(2));
        QCOMPARE(cleanupLines(mark), QStringList{u"cleanup: mode=%1 in=28 out=18"_s.arg(CleanupModes::rawValue(mode))});
        const QJsonObject body = server_->chatRequests().value(0).json();
        QJsonObject settings = body;
        settings.remove(u"messages"_s);  // and no length limit: a long dictation must come back whole
        QCOMPARE(settings, (QJsonObject{{u"model"_s, u"second-model"_s}, {u"temperature"_s, 0.2}, {u"stream"_s, false}}));
        QVERIFY(content(body, 0).startsWith(u"You are a text-cleanup filter"_s) && content(body, 0).contains(task));
        QVERIFY2(content(body, 1).endsWith(u"\n<<<BEGIN TEXT>>>\n"_s + text + u"\n<<<END TEXT>>>"_s), qPrintable(content(body, 1)));
    }

    // What the model says is cleaned of echoed markers and blanks; any failure pastes the text as spoken.
    void cleanupAnswersAndFailures_data()
    {
        QTest::addColumn<Answer>("answer");
        const auto row = [](const char* name, const Answer& a) { QTest::newRow(name) << a; };
        auto says = [](const QString& answer) { return FakeLlmServer::answer(answer).body; };
        auto ok = [](int in, int out) { return u"cleanup: mode=tidy in=%1 out=%2"_s.arg(in).arg(out); };
        auto error = [](const char* http) { return u"cleanup: error — the server answered %1; pasting raw"_s.arg(QString::fromUtf8(http)); };
        const QString in = u"as spoken"_s, none, noText = u"the server's answer holds no message text"_s;
        row("echoed markers", {u"hi"_s, 200, says(u"  <<<BEGIN TEXT>>>\nHello there.\n<<<END TEXT>>>  "_s), u"Hello there."_s, ok(2, 12)});
        row("markers only", {u"keep me"_s, 200, says(u"<<<BEGIN TEXT>>>\n\n<<<END TEXT>>>\r\n"_s), none, ok(7, 0)});
        row("markers anywhere", {u"a b"_s, 200, says(u"- one<<<END TEXT>>>\n\n- two <<<BEGIN TEXT>>>"_s), u"- one\n\n- two"_s, ok(3, 12)});
        row("empty transcript still asked", {QString(), 200, says(QString()), none, ok(0, 0)});
        row("user-perceived characters", {u"👍🏽 ok"_s, 200, says(u"e\u0301 👋🏻🇩🇪"_s), u"e\u0301 👋🏻🇩🇪"_s, ok(4, 4)});
        row("HTTP error, message", {in, 500, QByteArray(R"({"error":{"message":"crashed"}})"), none, error("HTTP 500: crashed")});
        row("HTTP error, plain", {in, 400, QByteArray(R"({"error":"context too long"})"), none, error("HTTP 400: context too long")});
        row("HTTP error, no body", {in, 503, QByteArray(), none, error("HTTP 503")});
        row("not JSON", {in, 200, QByteArray("<html>oops</html>"), none, u"cleanup: error — %1; pasting raw"_s.arg(noText)});
        row("null content", {in, 200, QByteArray(R"({"choices":[{"message":{"content":null}}]})"), none, u"cleanup: error — %1; pasting raw"_s.arg(noText)});
        row("server gone after the model list", {in, 0, QByteArray(), none, none});
    }
    void cleanupAnswersAndFailures()
    {
        QFETCH(Answer, answer);
        const auto& [input, status, body, expected, logLine] = answer;
        server_->chat = [=, this](const QJsonObject&) {
            if (status == 0)
                QMetaObject::invokeMethod(this, [this] { delete std::exchange(server_, nullptr); }, Qt::QueuedConnection);
            return FakeLlmServer::Response{status, body, status == 0 ? FakeLlmServer::held : 0};
        };
        CleanupEngine engine;
        const TestSupport::LogMark mark;
        QCOMPARE(await(engine.process(input, CleanupMode::tidy)), expected.isEmpty() ? input : expected);
        const QStringList lines = cleanupLines(mark);
        const bool someError = lines.size() == 1 && lines[0].startsWith(u"cleanup: error — "_s) && lines[0].endsWith(u"; pasting raw"_s);
        QVERIFY2(logLine.isEmpty() ? someError : lines == QStringList{logLine}, qPrintable(lines.join(QLatin1Char('\n'))));
    }

    // Nothing is sent, the reason says why, the text stays. Other computers are refused even with a local server at hand.
    void unavailableServersAreExplainedAndPasteRaw_data()
    {
        QTest::addColumn<Unavailable>("server");
        const auto row = [](const char* name, const Unavailable& u) { QTest::newRow(name) << u; };
        const QStringList one{u"test-model"_s};
        row("nothing listens", {FakeLlmServer::closedEndpoint(), one, 200, QString(), u"Connection refused"_s});
        row("no models", {QString(), QStringList(), 200, QString(), u"offers no models"_s});
        row("model list fails", {QString(), one, 503, QString(), u"HTTP 503: models are not ready"_s});
        row("model list never comes", {QString(), one, 0, QString(), u"did not list its models within 2 seconds"_s});
        row("configured model missing", {QString(), one, 200, u"llama3"_s, u"does not offer the model “llama3” (it offers test-model)"_s});
        row("not a server address", {u"127.0.0.1:8080"_s, one, 200, QString(), u"is not a server address"_s});
        // Documentation-only addresses: refused before any connection.
        row("remote address", {u"http://192.0.2.1:1/v1"_s, one, 200, QString(), u"http://192.0.2.1:1/v1 is not on this computer"_s});
        row("remote name", {u"https://llm.example.invalid/v1/"_s, one, 200, QString(), u"https://llm.example.invalid/v1 is not on this"_s});
    }
    void unavailableServersAreExplainedAndPasteRaw()
    {
        QFETCH(Unavailable, server);
        const auto& [endpoint, models, modelsStatus, wantedModel, reasonPart] = server;
        server_->models = models;
        server_->modelsStatus = modelsStatus;
        server_->answerModelList = modelsStatus != 0;
        Preferences::shared().setValue(Settings::llmEndpoint, endpoint.isEmpty() ? server_->endpoint() : endpoint);
        Preferences::shared().setValue(Settings::llmModel, wantedModel);
        CleanupEngine engine;
        engine.setWellKnownEndpoints({server_->endpoint()});  // only asked when no endpoint is set
        const TestSupport::LogMark mark;
        QCOMPARE(await(engine.process(u"as spoken"_s, CleanupMode::tidy)), u"as spoken"_s);
        QCOMPARE(cleanupLines(mark), QStringList{u"cleanup: model unavailable — pasting raw"_s});
        QVERIFY(endpoint.isEmpty() ? server_->chatRequests().isEmpty() : server_->requests.isEmpty());
        const CleanupEngine::Availability found = await(engine.checkAvailability());
        QVERIFY2(!found.available && found.reason.contains(reasonPart), qPrintable(found.reason));
    }

    // Without a configured server the well-known ones are asked in turn; the first that answers wins.
    void wellKnownServersAreTriedInOrder()
    {
        Preferences::shared().setValue(Settings::llmEndpoint, QString());
        FakeLlmServer second;
        QVERIFY(second.listen());
        second.models = {u"listed first"_s, u"other"_s};
        const QString closed = FakeLlmServer::closedEndpoint(), closed2 = FakeLlmServer::closedEndpoint();
        CleanupEngine engine;
        engine.setWellKnownEndpoints({closed, second.endpoint(), server_->endpoint()});
        QCOMPARE(await(engine.process(u"x"_s, CleanupMode::tidy)), u"cleaned text"_s);
        QCOMPARE(second.chatRequests().value(0).json().value(QLatin1String("model")).toString(), u"listed first"_s);
        QVERIFY(server_->requests.isEmpty());
        engine.setWellKnownEndpoints({closed, closed2});
        const CleanupEngine::Availability found = await(engine.checkAvailability());
        QVERIFY2(!found.available && found.reason.startsWith(u"No language-model server found on this computer"_s)
                     && found.reason.contains(closed) && found.reason.contains(closed2), qPrintable(found.reason));
    }

    // The server runs on this thread: it can only take both requests if the calls suspend.
    void cleanupCallsNeverBlockTheEventLoop()
    {
        server_->chat = [](const QJsonObject& request) {  // echoes the text in capitals, when the test says so
            return FakeLlmServer::answer(content(request, 1).section(QLatin1Char('\n'), 2, 2).toUpper(), FakeLlmServer::held);
        };
        CleanupEngine engine;
        std::optional<QString> first, second;
        const QCoro::Task<> a = cleanInto(engine, u"first call"_s, first), b = cleanInto(engine, u"second call"_s, second);
        QVERIFY(TestSupport::waitUntil([&] { return server_->chatRequests().size() == 2; }));
        QVERIFY(!first && !second);
        server_->releaseHeld();
        QVERIFY(TestSupport::waitUntil([&] { return first && second; }));
        QCOMPARE(*first + QLatin1Char(' ') + *second, u"FIRST CALL SECOND CALL"_s);
    }
};

QTEST_GUILESS_MAIN(TextTest)
#include "TextTest.moc"
