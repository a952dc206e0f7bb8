#include "storage/Preferences.h"
#include "text/SnippetStore.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTest>

namespace {
const QString key = QStringLiteral("snippets");

Snippet make(const QString& trigger, const QString& replacement) { return Snippet{QUuid::createUuid(), trigger, replacement}; }

QByteArray stored() { return Preferences::shared().dataValue(key).value_or(QByteArray()); }
}  // namespace

class SnippetStoreTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void init() { Preferences::shared().remove(key); }

    void saveStoresCompactArrayWithUpperCaseIdsAndLoadsItBack()
    {
        const QList<Snippet> list = {make(QStringLiteral("Work Email"), QStringLiteral("me@example.org")),
                                     make(QStringLiteral("sig"), QStringLiteral("Kind regards,\n  Ana\t\"A\""))};
        SnippetStore::save(list);
        QCOMPARE(SnippetStore::load(), list);

        const QByteArray data = stored();
        QVERIFY2(!data.contains('\n') && !data.contains(": "), data.constData());  // compact
        const QJsonArray array = QJsonDocument::fromJson(data).array();
        QCOMPARE(array.size(), 2);
        const QRegularExpression canonical(
            QStringLiteral("^[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}$"));
        for (int i = 0; i < 2; ++i) {
            const QJsonObject o = array.at(i).toObject();
            QCOMPARE(o.keys(), (QStringList{QStringLiteral("id"), QStringLiteral("replacement"), QStringLiteral("trigger")}));
            QVERIFY2(canonical.match(o.value(QLatin1String("id")).toString()).hasMatch(),
                     qPrintable(o.value(QLatin1String("id")).toString()));
            QCOMPARE(o.value(QLatin1String("trigger")).toString(), list.at(i).trigger);
        }

        SnippetStore::save({});
        QCOMPARE(stored(), QByteArray("[]"));
        Preferences::shared().remove(key);  // nothing stored at all reads empty and expands nothing
        QVERIFY(SnippetStore::load().isEmpty());
        QCOMPARE(SnippetStore::expand(QStringLiteral("snippet work email")), std::nullopt);
    }

    void readsDataWrittenByOthers()
    {
        // Key order is free and lower-case hex digits are still a valid id.
        Preferences::shared().setData(
            key, R"([{"replacement":"R1","trigger":"one","id":"6f1c2d3e-4b5a-4c6d-8e7f-0a1b2c3d4e5f"}])");
        const QList<Snippet> list = SnippetStore::load();
        QCOMPARE(list.size(), 1);
        QCOMPARE(list.first().id, QUuid::fromString(QStringLiteral("6F1C2D3E-4B5A-4C6D-8E7F-0A1B2C3D4E5F")));
        QCOMPARE(list.first().replacement, QStringLiteral("R1"));
    }

    void undecodableDataReadsEmptyAndStaysUntilNextSave_data()
    {
        QTest::addColumn<QByteArray>("data");
        const QByteArray good = R"({"id":"6F1C2D3E-4B5A-4C6D-8E7F-0A1B2C3D4E5F","trigger":"a","replacement":"b"})";
        QTest::newRow("not json") << QByteArray("not json at all");
        QTest::newRow("object, not array") << good;
        QTest::newRow("one element lacks replacement")
            << QByteArray("[") + good + R"(,{"id":"7F1C2D3E-4B5A-4C6D-8E7F-0A1B2C3D4E5F","trigger":"work email"}])";
        QTest::newRow("missing id") << QByteArray(R"([{"trigger":"a","replacement":"b"}])");
        QTest::newRow("id not a uuid") << QByteArray(R"([{"id":"42","trigger":"a","replacement":"b"}])");
        QTest::newRow("id with braces")
            << QByteArray(R"([{"id":"{6F1C2D3E-4B5A-4C6D-8E7F-0A1B2C3D4E5F}","trigger":"a","replacement":"b"}])");
        QTest::newRow("trigger a number") << QByteArray(R"([{"id":"6F1C2D3E-4B5A-4C6D-8E7F-0A1B2C3D4E5F","trigger":1,"replacement":"b"}])");
        QTest::newRow("element not an object") << QByteArray("[") + good + ",\"x\"]";
    }

    void undecodableDataReadsEmptyAndStaysUntilNextSave()
    {
        QFETCH(QByteArray, data);
        Preferences::shared().setData(key, data);
        QVERIFY(SnippetStore::load().isEmpty());
        QCOMPARE(SnippetStore::expand(QStringLiteral("snippet a")), std::nullopt);
        QCOMPARE(stored(), data);  // reading never rewrites it

        const QList<Snippet> fresh = {make(QStringLiteral("a"), QStringLiteral("new"))};
        SnippetStore::save(fresh);
        QCOMPARE(SnippetStore::load(), fresh);
    }

    void expandMatchesSpokenCommands_data()
    {
        QTest::addColumn<QString>("spoken");
        QTest::addColumn<QString>("expected");  // empty: no expansion
        const QString mail = QStringLiteral("Jane Doe <jane@example.org>\nACME Ltd.");
        QTest::newRow("several blanks after the word") << QStringLiteral("snippet     work email") << mail;
        QTest::newRow("snip it, exclamation mark") << QStringLiteral("snip it work email!") << mail;
        QTest::newRow("capitalised, run of trailing punctuation") << QStringLiteral("Snippet work email?!.;:,") << mail;
        QTest::newRow("surrounding white space and line breaks") << QStringLiteral("\n  SNIPPET WORK EMAIL \t\n") << mail;
        QTest::newRow("comma after the command word") << QStringLiteral("snippet, work email") << QString();
        QTest::newRow("prefix not at the start") << QStringLiteral("please snippet work email") << QString();
        QTest::newRow("extra words after the trigger") << QStringLiteral("snippet work email please") << QString();
        QTest::newRow("command word alone, full stop") << QStringLiteral("Snippet.") << QString();
        QTest::newRow("command word and blanks only") << QStringLiteral("snippet    .") << QString();
        QTest::newRow("punctuation inside stays") << QStringLiteral("snippet work, email") << QString();
        QTest::newRow("unknown trigger") << QStringLiteral("snippet home address") << QString();
        QTest::newRow("line break inside the remainder") << QStringLiteral("snippet work\nemail") << QString();
        QTest::newRow("stored trigger with blanks around") << QStringLiteral("snippet greeting") << QStringLiteral("Hello!");
        QTest::newRow("stored trigger with a full stop never matches") << QStringLiteral("snippet sign off.") << QString();
        QTest::newRow("same trigger twice: earlier wins") << QStringLiteral("snip it dup") << QStringLiteral("first");
    }

    void expandMatchesSpokenCommands()
    {
        QFETCH(QString, spoken);
        QFETCH(QString, expected);
        SnippetStore::save({
            make(QStringLiteral("Work Email"), QStringLiteral("Jane Doe <jane@example.org>\nACME Ltd.")),
            make(QStringLiteral("  Greeting\t"), QStringLiteral("Hello!")),
            make(QStringLiteral("sign off."), QStringLiteral("Cheers")),
            make(QStringLiteral("dup"), QStringLiteral("first")),
            make(QStringLiteral("DUP"), QStringLiteral("second")),
        });
        const std::optional<QString> result = SnippetStore::expand(spoken);
        QCOMPARE(result, expected.isEmpty() ? std::nullopt : std::optional<QString>(expected));
    }

    void expandSeesEditsAtOnce()
    {
        SnippetStore::save({make(QStringLiteral("addr"), QStringLiteral("old"))});
        QCOMPARE(SnippetStore::expand(QStringLiteral("snippet addr")).value_or(QString()), QStringLiteral("old"));
        SnippetStore::save({make(QStringLiteral("addr"), QStringLiteral("new"))});
        QCOMPARE(SnippetStore::expand(QStringLiteral("snippet addr")).value_or(QString()), QStringLiteral("new"));
    }
};

QTEST_GUILESS_MAIN(SnippetStoreTest)
#include "SnippetStoreTest.moc"
