// Runs the built program with --shots as a user or a release script does: with no display at all,
// and (registered a second time) under an X server.
#include "storage/Preferences.h"
#include "support/TestSupport.h"
#include "text/SnippetStore.h"
#include "ui/SettingsView.h"

#include <QFile>
#include <QImage>
#include <QTemporaryDir>
#include <QTest>

namespace {

const char* const images[] = {"settings-general.png", "settings-snippets.png", "settings-history.png", "about.png"};

// The program chooses its platform itself: the X server when the run has one, otherwise offscreen.
TestSupport::ProgramRun shots(const QStringList& arguments, const QString& workingDirectory, const QString& display = {})
{
    TestSupport::Program program;
    program.arguments = QStringList{QStringLiteral("--shots")} + arguments;
    program.unset = {QStringLiteral("QT_QPA_PLATFORM")};
    program.workingDirectory = workingDirectory;
    if (!display.isEmpty())
        program.set.insert(QStringLiteral("DISPLAY"), display);
    return TestSupport::runTolvane(program);
}

QByteArray storeContents()
{
    QFile f(Preferences::shared().storePath());
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// Pixels of the brand green (#21A859), as in the selected tab.
int greenPixels(const QImage& image)
{
    int count = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) {
            const QColor c = image.pixelColor(x, y);
            count += std::abs(c.red() - 33) < 6 && std::abs(c.green() - 168) < 6 && std::abs(c.blue() - 89) < 6;
        }
    return count;
}

}  // namespace

class ScreenshotModeTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void writesFourImagesAndRestoresTheSnippets()
    {
        SnippetStore::save({Snippet{QUuid::createUuid(), QStringLiteral("home"), QStringLiteral("Bälderstraße 5\nZürich")}});
        const QByteArray before = storeContents();
        QTemporaryDir dir;
        const auto run = shots({dir.path()}, dir.path());
        QCOMPARE(run.exitCode, 0);

        // Images at the window sizes, with the drawn 30-point title bar on top.
        QStringList expected;
        for (const char* name : images) {
            const QString path = dir.path() + QLatin1Char('/') + QLatin1String(name);
            const bool settings = QLatin1String(name).startsWith(QLatin1String("settings"));
            const QSize size = settings ? QSize(560, SettingsView::contentHeight() + 30) : QSize(380, 510);
            const QImage image(path);
            QCOMPARE(image.size(), size);
            QVERIFY2(!settings || greenPixels(image) > 500, name);  // the selected tab in brand green
            expected << QStringLiteral("wrote %1  (%2x%3)").arg(path).arg(size.width()).arg(size.height());
        }
        QCOMPARE(run.outLines(), expected << QStringLiteral("screenshots written to ") + dir.path());
        QCOMPARE(storeContents(), before);
    }

    void withoutAFolderWritesToMarketingAndLeavesNoSnippets()
    {
        // Without an X server, a display that does not answer falls back to offscreen rendering.
        const QString deadDisplay = qEnvironmentVariableIsSet("DISPLAY") ? QString() : QStringLiteral(":7391");
        Preferences::shared().remove(QStringLiteral("snippets"));
        QTemporaryDir dir;
        const auto run = shots({}, dir.path(), deadDisplay);
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.outLines().last(), QStringLiteral("screenshots written to marketing"));
        for (const char* name : images)
            QVERIFY(!QImage(dir.path() + QStringLiteral("/marketing/") + QLatin1String(name)).isNull());
        QVERIFY(!Preferences::shared().dataValue(QStringLiteral("snippets")));
    }
};

QTEST_MAIN(ScreenshotModeTest)
#include "ScreenshotModeTest.moc"
