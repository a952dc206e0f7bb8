// A dictation when the things around it fail: a language-model server that answers too slowly, too
// much, forever or in broken text, and a disk that takes no more bytes. The text still reaches the
// focused window and nothing already stored is lost.
#include "support/DelegateRig.h"

#include "storage/Diagnostics.h"
#include "storage/Preferences.h"
#include "support/FakeLlmServer.h"
#include "support/FullDisk.h"
#include "support/TestSupport.h"

#include <QFile>
#include <QRegularExpression>
#include <QTest>

#include <memory>

using Mode = AppDelegate::Mode;
using Response = LoopbackHttpServer::Response;

namespace {

using TestSupport::readFile;

QString typed(const QString& text) { return QStringLiteral("injector.insertText(%1)").arg(text); }

// A chat answer up to the start of the message text, which the body goes on with.
const QByteArray answerHead = "{\"choices\":[{\"index\":0,\"message\":{\"role\":\"assistant\",\"content\":\"";

// `body` in pieces of `size` bytes.
std::function<QByteArray()> inPieces(const QByteArray& body, qsizetype size)
{
    auto at = std::make_shared<qsizetype>(0);
    return [body, size, at] {
        const QByteArray piece = body.mid(*at, size);
        *at += piece.size();
        return piece;
    };
}

// `total` bytes of letters in pieces of 64 KiB; endless when negative.
std::function<QByteArray()> letters(qint64 total)
{
    auto sent = std::make_shared<qint64>(0);
    return [total, sent] {
        const qint64 n = total < 0 ? 65536 : std::min<qint64>(65536, total - *sent);
        *sent += n;
        return QByteArray(n, 'a');
    };
}

void dictate(DelegateRig& rig, const QString& said)
{
    rig.transcriber.finalText = said;
    rig.fire(QStringLiteral("key down"));
    rig.fire(QStringLiteral("key up"));
    QVERIFY(TestSupport::waitUntil([&] { return rig.mode() == Mode::idle; }, 20000));
}

}  // namespace

class FaultsTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void init()
    {
        QFile::remove(Preferences::shared().storePath());
        TranscriptStore::shared().clear();
        TranscriptStore::shared().waitForWrites();
    }

    // The real cleanup engine against a server whose answer is slow, endless, huge or not text.
    void unusableModelAnswersStillInsert_data()
    {
        QTest::addColumn<Response>("answer");
        QTest::addColumn<QString>("inserted");
        QTest::addColumn<QString>("log");
        const QString said = QStringLiteral("um the plan"), tooLarge = QStringLiteral(
            "cleanup: error — the server's answer is larger than 4 MiB, so it was not read; pasting raw");
        QTest::newRow("slow, byte by byte") << Response{200, {}, 0, inPieces(FakeLlmServer::answer(QStringLiteral("The plan.")).body, 1), 2}
                                            << QStringLiteral("The plan.") << QStringLiteral("cleanup: mode=tidy in=11 out=9");
        QTest::newRow("endless") << Response{200, answerHead, 0, letters(-1)} << said << tooLarge;
        QTest::newRow("100 MB") << Response{200, answerHead, 0, letters(100000000), 0, answerHead.size() + 100000000} << said
                                << tooLarge;
        QTest::newRow("invalid UTF-8") << Response{200, answerHead + "The pl\xe4n \xff\xfe\"}}]}"} << said
                                       << QStringLiteral("cleanup: error — the server's answer holds no message text; pasting raw");
    }
    void unusableModelAnswersStillInsert()
    {
        QFETCH(Response, answer);
        QFETCH(QString, inserted);
        QFETCH(QString, log);
        FakeLlmServer server;
        QVERIFY(server.listen());
        server.configureCleanup();
        server.chat = [answer](const QJsonObject&) { return answer; };
        Preferences::shared().setCleanupMode(CleanupMode::tidy);
        DelegateRig rig;
        CleanupEngine engine;
        rig.delegate->cleanup = &engine;
        const TestSupport::LogMark mark;
        dictate(rig, QStringLiteral("um the plan"));
        QCOMPARE(rig.journal.calls.filter(QStringLiteral("injector.")), QStringList{typed(inserted)});
        QVERIFY2(mark.messages().contains(log), qPrintable(mark.messages().join(QLatin1Char('\n'))));
        QCOMPARE(server.chatRequests().size(), 1);
    }

    // Neither the history nor the log can grow: the dictation still inserts its text, each store
    // says once that it could not write, and both files stay exactly as they were, with no cut
    // line. Once there is room again, the next write holds everything.
    void fullDiskLosesNothing()
    {
        Preferences::shared().setCleanupMode(CleanupMode::raw);
        DelegateRig rig;
        dictate(rig, QStringLiteral("first"));
        dictate(rig, QStringLiteral("second"));
        TranscriptStore::shared().waitForWrites();
        Diagnostics::flush();
        const QString history = TranscriptStore::fileURL(), log = Diagnostics::logFilePath();
        const QByteArray historyBefore = readFile(history), logBefore = readFile(log);
        QVERIFY(historyBefore.count('\n') == 2 && !logBefore.isEmpty());

        FullDisk full;
        dictate(rig, QStringLiteral("third"));
        TranscriptStore::shared().waitForWrites();
        Diagnostics::flush();
        const QStringList said = full.release().split(QLatin1Char('\n'), Qt::SkipEmptyParts);

        QCOMPARE(rig.journal.calls.filter(QStringLiteral("injector.insertText")).last(), typed(QStringLiteral(" third")));
        QCOMPARE(readFile(history), historyBefore);
        QCOMPARE(readFile(log), logBefore);
        QCOMPARE(said.filter(QStringLiteral("Tolvane: diagnostics: could not write ") + log).size(), 1);
        QCOMPARE(said.filter(QStringLiteral("Tolvane: history: could not write ") + history).size(), 1);
        QVERIFY2(said.contains(QStringLiteral("Tolvane: dictation: pasted=true (leadingSpace=true)")), qPrintable(said.join(QLatin1Char('\n'))));
        QCOMPARE(QDir(QFileInfo(history).absolutePath()).entryList(QDir::Files),
                 (QStringList{QStringLiteral("diagnostic.log"), QStringLiteral("transcripts.jsonl")}));

        dictate(rig, QStringLiteral("fourth"));
        TranscriptStore::shared().waitForWrites();
        QStringList texts;
        for (const TranscriptEntry& e : TranscriptStore(history).entries())
            texts << e.text;
        QCOMPARE(texts, (QStringList{"first", "second", "third", "fourth"}));
        const QByteArray logAfter = readFile(log);
        QVERIFY(logAfter.startsWith(logBefore));
        const QRegularExpression whole(QStringLiteral(R"(^\d{4}-\d\d-\d\dT[\d:.]{12}Z \[\w+:\d+\] \w+: )"));
        for (const QString& line : QString::fromUtf8(logAfter.mid(logBefore.size())).split(QLatin1Char('\n'), Qt::SkipEmptyParts))
            QVERIFY2(whole.match(line).hasMatch(), qPrintable(line));
    }
};

QTEST_GUILESS_MAIN(FaultsTest)
#include "FaultsTest.moc"
