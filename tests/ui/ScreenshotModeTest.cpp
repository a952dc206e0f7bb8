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

struct Run {
    int exitCode = -1;
    QStringList lines;
};

// The program chooses its platform itself: the X server when the run has one (the XVFB variant of
// this test), otherwise offscreen rendering.
Run runShots(const QStringList& arguments, const QString& workingDirectory, const QString& display = QString())
{
    TestSupport::Program program{.arguments = QStringList{QStringLiteral("--shots")} + arguments,
                                 .unset = {QStringLiteral("QT_QPA_PLATFORM")}, .workingDirectory = workingDirectory};
    if (!display.isEmpty())
        program.set.insert(QStringLiteral("DISPLAY"), display);
    const TestSupport::ProgramRun run = TestSupport::runTolvane(program);
    return {run.exitCode, run.outLines()};
}

QByteArray readAll(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// Pixels close to the brand green (#21A859), as in the selected tab.
int greenPixels(const QImage& image)
{
    int count = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) {
            const QColor c = image.pixelColor(x, y);
            if (std::abs(c.red() - 33) < 6 && std::abs(c.green() - 168) < 6 && std::abs(c.blue() - 89) < 6)
                ++count;
        }
    return count;
}

}  // namespace

class ScreenshotModeTest : public QObject {
    Q_OBJECT
private Q_SLOTS:
    void writesFourImagesAndRestoresTheSnippets()
    {
        SnippetStore::save({Snippet{QUuid::createUuid(), QStringLiteral("home"), QStringLiteral("Bälderstraße 5\nZürich")},
                            Snippet{QUuid::createUuid(), QStringLiteral("sig"), QStringLiteral("— J.")}});
        const QString store = Preferences::shared().storePath();
        const QByteArray before = readAll(store);
        QVERIFY(before.contains("snippets"));

        QTemporaryDir dir;
        const Run run = runShots({dir.path()}, dir.path());
        QCOMPARE(run.exitCode, 0);

        // Images at the window sizes, with the drawn title bar on top.
        const int titleBar = 30;
        const QList<std::pair<QString, QSize>> files = {
            {QStringLiteral("settings-general.png"), QSize(560, SettingsView::contentHeight() + titleBar)},
            {QStringLiteral("settings-snippets.png"), QSize(560, SettingsView::contentHeight() + titleBar)},
            {QStringLiteral("settings-history.png"), QSize(560, SettingsView::contentHeight() + titleBar)},
            {QStringLiteral("about.png"), QSize(380, 480 + titleBar)},
        };
        QStringList expected;
        for (const auto& [name, size] : files) {
            const QString path = dir.path() + QLatin1Char('/') + name;
            const QImage image(path);
            QVERIFY2(!image.isNull(), qPrintable(path));
            QCOMPARE(image.size(), size);
            if (name.startsWith(QStringLiteral("settings")))
                QVERIFY2(greenPixels(image) > 500, qPrintable(name));  // the selected tab in brand green
            expected << QStringLiteral("wrote %1  (%2x%3)").arg(path).arg(size.width()).arg(size.height());
        }
        expected << QStringLiteral("screenshots written to ") + dir.path();
        QCOMPARE(run.lines, expected);

        QCOMPARE(readAll(store), before);
        QCOMPARE(SnippetStore::load().size(), 2);
    }

    void withoutAFolderWritesToMarketingAndLeavesNoSnippets()
    {
        Preferences::shared().remove(QStringLiteral("snippets"));
        QTemporaryDir dir;
        const Run run = runShots({}, dir.path());
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.lines.size(), 5);
        QCOMPARE(run.lines.last(), QStringLiteral("screenshots written to marketing"));
        for (const char* name : {"settings-general.png", "settings-snippets.png", "settings-history.png", "about.png"})
            QVERIFY(QFile::exists(dir.path() + QStringLiteral("/marketing/") + QLatin1String(name)));
        QVERIFY(!Preferences::shared().dataValue(QStringLiteral("snippets")));
        QVERIFY(SnippetStore::load().isEmpty());
    }

    void aDisplayThatDoesNotAnswerFallsBackToOffscreen()
    {
        if (qEnvironmentVariableIsSet("DISPLAY"))
            QSKIP("the variant without an X server covers this");
        QTemporaryDir dir;
        const Run run = runShots({dir.path()}, dir.path(), QStringLiteral(":7391"));
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.lines.size(), 5);
        QVERIFY(!QImage(dir.path() + QStringLiteral("/about.png")).isNull());
    }
};

QTEST_MAIN(ScreenshotModeTest)
#include "ScreenshotModeTest.moc"
