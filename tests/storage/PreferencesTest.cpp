#include "storage/Preferences.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTest>

namespace {
QByteArray storeBytes()
{
    QFile f(Preferences::shared().storePath());
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

void writeRawStore(const QByteArray& ini)
{
    QFile f(Preferences::shared().storePath());
    QDir().mkpath(QFileInfo(f).absolutePath());  // nothing may have been saved yet
    QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
    f.write(ini);
}
}  // namespace

class PreferencesTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void init()
    {
        QFile::remove(Preferences::shared().storePath());
        QFile::remove(Preferences::autostartFilePath());
    }

    void emptyStoreReadsEveryDefault()
    {
        Preferences& p = Preferences::shared();
        QCOMPARE(p.localeIdentifier(), QStringLiteral("en-US"));
        QCOMPARE(p.historyEnabled(), true);
        QCOMPARE(p.historyRetention(), 10);
        QCOMPARE(p.activationKey(), ActivationKey::leftOption);
        QCOMPARE(p.cleanupMode(), CleanupMode::tidy);
        QCOMPARE(p.showDockIcon(), true);
        QCOMPARE(p.autoReturn(), false);
        QCOMPARE(p.liveTyping(), false);
        QCOMPARE(p.startAtLogin(), false);
        QCOMPARE(p.value(Settings::llmAllowRemote), false);
        QCOMPARE(p.value(Settings::llmEndpoint), QString());
    }

    void retentionClampsOnRead_data()
    {
        QTest::addColumn<QByteArray>("stored");
        QTest::addColumn<int>("read");
        QTest::newRow("zero") << QByteArray("0") << 1;
        QTest::newRow("negative") << QByteArray("-5") << 1;
        QTest::newRow("250") << QByteArray("250") << 100;
        QTest::newRow("in range") << QByteArray("42") << 42;
        QTest::newRow("not a number") << QByteArray("many") << 10;
    }
    void retentionClampsOnRead()
    {
        QFETCH(QByteArray, stored);
        QFETCH(int, read);
        writeRawStore("[General]\nhistoryRetention=" + stored + "\n");
        QCOMPARE(Preferences::shared().historyRetention(), read);
    }

    // Writes are clamped and stored at once as the raw values other programs (and later versions) read.
    void writesAreClampedAndStoredRaw()
    {
        Preferences& p = Preferences::shared();
        p.setHistoryRetention(0);
        QVERIFY(storeBytes().contains("historyRetention=1"));
        p.setHistoryRetention(101);
        p.setCleanupMode(CleanupMode::raw);
        p.setActivationKey(ActivationKey::rightControl);
        const QByteArray ini = storeBytes();
        QVERIFY(ini.contains("historyRetention=100") && ini.contains("cleanupMode=raw") && ini.contains("activationKey=rightControl"));
    }

    void garbageReadsAsDefaultsAndIsNotRewritten()
    {
        const QByteArray garbage =
            "[General]\nhistoryEnabled=perhaps\nshowDockIcon=7\ncleanupMode=Tidy\nactivationKey=leftAlt\n"
            "locale=@Variant(\\0\\0\\0\\x2\\0\\0\\0\\x5)\nliveTyping=yes\nautoReturn=1\n";
        writeRawStore(garbage);
        Preferences& p = Preferences::shared();
        QCOMPARE(p.historyEnabled(), true);
        QCOMPARE(p.showDockIcon(), true);
        QCOMPARE(p.cleanupMode(), CleanupMode::tidy);  // raw values match exactly, case included
        QCOMPARE(p.activationKey(), ActivationKey::leftOption);
        QCOMPARE(p.localeIdentifier(), QStringLiteral("en-US"));
        QCOMPARE(p.liveTyping(), false);
        QCOMPARE(p.autoReturn(), false);
        QCOMPARE(storeBytes(), garbage);

        writeRawStore("[General]\ncleanupMode=raw\nhistoryEnabled=false\n");
        QCOMPARE(p.cleanupMode(), CleanupMode::raw);
        QCOMPARE(p.historyEnabled(), false);
    }

    void localeSignalsOnlyOnChangeActivationKeyOnEveryWrite()
    {
        Preferences& p = Preferences::shared();
        QSignalSpy locale(&p, &Preferences::localeChanged);
        p.setLocaleIdentifier(QStringLiteral("en-US"));  // already in effect on an empty store
        QVERIFY(!storeBytes().contains("locale"));
        p.setLocaleIdentifier(QStringLiteral("de-DE"));
        p.setLocaleIdentifier(QStringLiteral("de-DE"));
        QCOMPARE(locale.count(), 1);
        QCOMPARE(p.localeIdentifier(), QStringLiteral("de-DE"));

        QSignalSpy key(&p, &Preferences::activationKeyChanged);
        p.setActivationKey(ActivationKey::leftOption);
        p.setActivationKey(ActivationKey::leftOption);
        QCOMPARE(key.count(), 2);
    }

    void startAtLoginIsTheAutostartEntry()
    {
        Preferences& p = Preferences::shared();
        TestSupport::LogMark mark;
        p.setStartAtLogin(true);
        QVERIFY(QFile::exists(Preferences::autostartFilePath()));
        QVERIFY(p.startAtLogin());
        p.setStartAtLogin(true);  // already on: nothing to do, still logged
        p.setStartAtLogin(false);
        QVERIFY(!QFile::exists(Preferences::autostartFilePath()));
        QVERIFY(!p.startAtLogin());
        QCOMPARE(mark.messages(), (QStringList{QStringLiteral("prefs: startAtLogin = true"),
                                               QStringLiteral("prefs: startAtLogin = true"),
                                               QStringLiteral("prefs: startAtLogin = false")}));
    }

    void startAtLoginFailureIsLogged()
    {
        // The autostart folder's place is taken by a file, so the entry cannot be written.
        const QString dir = QFileInfo(Preferences::autostartFilePath()).absolutePath();
        QDir(dir).removeRecursively();
        QFile blocker(dir);
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        TestSupport::LogMark mark;
        Preferences::shared().setStartAtLogin(true);
        QVERIFY(!Preferences::shared().startAtLogin());
        QCOMPARE(mark.messages().size(), 1);
        QVERIFY(mark.messages().first().startsWith(QStringLiteral("prefs: startAtLogin toggle failed: ")));
        QFile::remove(dir);
    }

    void entryDisabledByTheDesktopReadsOff()
    {
        Preferences& p = Preferences::shared();
        p.setStartAtLogin(true);
        QFile f(Preferences::autostartFilePath());
        QVERIFY(f.open(QIODevice::Append));
        f.write("Hidden=true\n");
        f.close();
        QVERIFY(!p.startAtLogin());
    }
};

QTEST_GUILESS_MAIN(PreferencesTest)
#include "PreferencesTest.moc"
