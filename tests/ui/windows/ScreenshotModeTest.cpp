// Runs the built program with --shots as a release script does: with no display at all, and
// (registered a second time) under an X server.
#include "storage/Preferences.h"
#include "support/TestSupport.h"
#include "text/SnippetStore.h"

#include <QFile>
#include <QImage>
#include <QTemporaryDir>
#include <QTest>

namespace {

const char* const images[] = {"settings-general.png", "settings-snippets.png", "settings-history.png", "about.png"};

QByteArray storeContents() { return TestSupport::readFile(Preferences::shared().storePath()); }

// Pixels of the brand green, as in the selected tab: the window was really drawn, not left blank.
int greenPixels(const QImage& image)
{
    int count = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            count += image.pixelColor(x, y).rgb() == qRgb(0x21, 0xA8, 0x59);
    return count;
}

}  // namespace

class ScreenshotModeTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void writesFourImagesAndLeavesTheStoreAsItWas_data()
    {
        QTest::addColumn<QString>("folder");
        QTest::addColumn<bool>("snippets");
        QTest::newRow("into a folder, snippets kept") << QStringLiteral("shots") << true;
        QTest::newRow("the default folder, no snippets") << QString() << false;
    }
    void writesFourImagesAndLeavesTheStoreAsItWas()
    {
        QFETCH(QString, folder);
        QFETCH(bool, snippets);
        Preferences::shared().remove(QStringLiteral("snippets"));
        if (snippets)
            SnippetStore::save({Snippet{QUuid::createUuid(), QStringLiteral("home"), QStringLiteral("Bälderstraße 5\nZürich")}});
        const QByteArray before = storeContents();
        QTemporaryDir dir;
        // The program chooses its platform itself: the X server when the run has one, otherwise
        // offscreen, also when a display is named that does not answer.
        TestSupport::Program program;
        program.arguments = QStringList{QStringLiteral("--shots")} + (folder.isEmpty() ? QStringList() : QStringList{folder});
        program.unset = {QStringLiteral("QT_QPA_PLATFORM")};
        program.workingDirectory = dir.path();
        if (!snippets && !qEnvironmentVariableIsSet("DISPLAY"))
            program.set.insert(QStringLiteral("DISPLAY"), QStringLiteral(":7391"));
        const auto run = TestSupport::runTolvane(program);
        QCOMPARE(run.exitCode, 0);

        // Every image is there, each reported with its size.
        const QString written = folder.isEmpty() ? QStringLiteral("marketing") : folder;
        QStringList expected;
        for (const char* name : images) {
            const QString path = written + QLatin1Char('/') + QLatin1String(name);
            const QImage image(dir.path() + QLatin1Char('/') + path);
            QVERIFY2(!image.isNull() && (!QLatin1String(name).startsWith(QLatin1String("settings")) || greenPixels(image) > 500), name);
            expected << QStringLiteral("wrote %1  (%2x%3)").arg(path).arg(image.width()).arg(image.height());
        }
        QCOMPARE(run.outLines(), expected << QStringLiteral("screenshots written to ") + written);
        QCOMPARE(storeContents(), before);
    }
};

QTEST_MAIN(ScreenshotModeTest)
#include "ScreenshotModeTest.moc"
