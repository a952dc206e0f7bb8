#include "ui/windows/ScreenshotMode.h"

#include "storage/Preferences.h"
#include "storage/TranscriptStore.h"
#include "text/SnippetStore.h"
#include "ui/settings/SettingsView.h"
#include "ui/widgets/Theme.h"
#include "ui/windows/AboutView.h"
#include "ui/x11/X11Desktop.h"

#include <QApplication>
#include <QDateTime>
#include <QDir>
#include <QEventLoop>
#include <QPainter>
#include <QSettings>
#include <QStyle>
#include <QStyleFactory>
#include <QTimer>
#include <QVBoxLayout>

#include <cstdio>
#include <memory>

namespace ScreenshotMode {

namespace {

constexpr int titleBarHeight = 30;

void printLine(const QString& line)
{
    const QByteArray bytes = (line + QLatin1Char('\n')).toUtf8();
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stdout);
    std::fflush(stdout);
}

// The window title bar the offscreen platform does not draw: the title centred, window buttons right.
class TitleBar final : public QWidget {
public:
    explicit TitleBar(QString title) : title_(std::move(title)) { setFixedHeight(titleBarHeight); }

protected:
    void paintEvent(QPaintEvent*) override
    {
        QPainter p(this);
        p.setRenderHint(QPainter::Antialiasing);
        const QRectF r = QRectF(rect());
        QLinearGradient g(r.topLeft(), r.bottomLeft());
        g.setColorAt(0, QColor(236, 236, 236));
        g.setColorAt(1, QColor(226, 226, 226));
        p.fillRect(r, g);
        p.setPen(QColor(0, 0, 0, 38));
        p.drawLine(QPointF(0, r.bottom() - 0.5), QPointF(r.right(), r.bottom() - 0.5));
        QFont f = Theme::font(Theme::TextStyle::body, QFont::DemiBold);
        p.setFont(f);
        p.setPen(QColor(40, 40, 40));
        p.drawText(r, Qt::AlignCenter, title_);
        // Minimise and close, as round buttons.
        const qreal d = 16;
        const qreal cy = r.center().y();
        auto button = [&](qreal x) {
            p.setPen(Qt::NoPen);
            p.setBrush(QColor(0, 0, 0, 22));
            p.drawEllipse(QRectF(x, cy - d / 2, d, d));
            p.setPen(QPen(QColor(60, 60, 60), 1.3, Qt::SolidLine, Qt::RoundCap));
        };
        const qreal closeX = r.right() - 10 - d;
        button(closeX);
        p.drawLine(QPointF(closeX + 5, cy - 3), QPointF(closeX + 11, cy + 3));
        p.drawLine(QPointF(closeX + 11, cy - 3), QPointF(closeX + 5, cy + 3));
        const qreal minX = closeX - 8 - d;
        button(minX);
        p.drawLine(QPointF(minX + 5, cy + 0.5), QPointF(minX + 11, cy + 0.5));
    }

private:
    QString title_;
};

void pump(int milliseconds)
{
    QEventLoop loop;
    QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
    loop.exec();
}

// Shows the view in a window with a drawn title bar "Tolvane", lets it settle, and writes the whole
// window to file.
void capture(QWidget* view, QSize size, const QString& file)
{
    auto* window = new QWidget(nullptr, Qt::Window | Qt::FramelessWindowHint);
    window->setWindowTitle(QStringLiteral("Tolvane"));
    window->setAutoFillBackground(true);
    auto* layout = new QVBoxLayout(window);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(new TitleBar(QStringLiteral("Tolvane")));
    view->setFixedSize(size);
    layout->addWidget(view);
    window->setFixedSize(size.width(), size.height() + titleBarHeight);
    window->show();
    pump(700);  // layout, first paint and the panes' loading work

    const QPixmap image = window->grab();
    if (!image.isNull()) {
        image.save(file, "PNG");  // a failed write is ignored; the line is printed all the same
        printLine(QStringLiteral("wrote ") + file + QStringLiteral("  (") + QString::number(window->width()) +
                  QLatin1Char('x') + QString::number(window->height()) + QLatin1Char(')'));
    }
    window->hide();
    window->deleteLater();
}

struct Sample {
    int offsetSeconds;
    const char* text;
};

constexpr Sample sampleTranscripts[] = {
    {-180, "Hey, can you send me the updated proposal by end of day? I want to review it before our call tomorrow."},
    {-5400, "Reminder: pick up milk, eggs, spinach, and coffee on the way home."},
    {-9000, "Draft reply. Thanks for reaching out. I'm free Thursday afternoon or Friday morning for a quick call."},
    {-93600, "Meeting notes. We agreed to ship the beta next Friday, prep the launch page, and revisit pricing in two "
             "weeks."},
    {-180000, "Add a line to the README that the app works fully offline after the first model download."},
};

QPalette lightPalette()
{
    // Only the style's palette is wanted; the style itself goes with this scope.
    const std::unique_ptr<QStyle> fusion(QStyleFactory::create(QStringLiteral("Fusion")));
    QPalette pal = fusion->standardPalette();
    pal.setColor(QPalette::Window, QColor(246, 246, 246));
    pal.setColor(QPalette::WindowText, QColor(28, 28, 30));
    pal.setColor(QPalette::Base, Qt::white);
    pal.setColor(QPalette::Text, QColor(28, 28, 30));
    pal.setColor(QPalette::Button, QColor(252, 252, 252));
    pal.setColor(QPalette::ButtonText, QColor(28, 28, 30));
    pal.setColor(QPalette::Highlight, brandGreen());
    pal.setColor(QPalette::HighlightedText, Qt::white);
    pal.setColor(QPalette::PlaceholderText, QColor(28, 28, 30, 110));
    return pal;
}

}  // namespace

void preparePlatform()
{
    if (qEnvironmentVariableIsSet("QT_QPA_PLATFORM") || qEnvironmentVariableIsSet("WAYLAND_DISPLAY"))
        return;
    if (!X11Desktop::canOpenDisplay(qgetenv("DISPLAY")))
        qputenv("QT_QPA_PLATFORM", "offscreen");
}

int run(const QString& outputDir)
{
    QDir().mkpath(outputDir);  // failure shows up as files not written

    // Images look the same whatever the desktop's theme.
    QApplication::setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
    QApplication::setPalette(lightPalette());

    // Sample history, newest last as the store keeps it; shown instead of the user's, whose file
    // stays untouched.
    QList<TranscriptEntry> samples;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    for (const Sample& s : sampleTranscripts)
        samples.append(TranscriptEntry{QUuid::createUuid(), now.addSecs(s.offsetSeconds).toString(Qt::ISODateWithMs),
                                       QString::fromUtf8(s.text)});
    std::reverse(samples.begin(), samples.end());

    SettingsServices services;
    services.historyEntries = [samples] { return samples; };
    services.clearHistory = [] {};
    services.cleanupAvailability = []() -> QCoro::Task<CleanupEngine::Availability> {
        CleanupEngine::Availability a;
        a.available = true;
        a.endpoint = QStringLiteral("http://127.0.0.1:8080/v1");
        a.model = QStringLiteral("qwen2.5-3b-instruct");
        co_return a;
    };

    // The user's snippets are kept as stored (whatever the stored form) and put back exactly.
    const QString key = QStringLiteral("snippets");
    const QString store = Preferences::shared().storePath();
    const QVariant kept = QSettings(store, QSettings::NativeFormat).value(key);
    SnippetStore::save({
        Snippet{QUuid::createUuid(), QStringLiteral("work email"), QStringLiteral("alex.doe@example.com")},
        Snippet{QUuid::createUuid(), QStringLiteral("address"),
                QStringLiteral("123 Market Street, Suite 400, San Francisco, CA")},
        Snippet{QUuid::createUuid(), QStringLiteral("signature"), QStringLiteral("Best regards,\nYour Name")},
    });

    const QSize settingsSize(SettingsView::width, SettingsView::contentHeight());
    const auto settings = [&](SettingsView::Pane pane, const char* name) {
        capture(new SettingsView({}, pane, services), settingsSize, outputDir + QLatin1String(name));
    };
    settings(SettingsView::Pane::general, "/settings-general.png");
    settings(SettingsView::Pane::snippets, "/settings-snippets.png");
    settings(SettingsView::Pane::history, "/settings-history.png");
    capture(new AboutView(QStringLiteral("Version x.x.x")), QSize(AboutView::width, AboutView::height),
            outputDir + QStringLiteral("/about.png"));

    {
        QSettings restore(store, QSettings::NativeFormat);
        if (kept.isValid())
            restore.setValue(key, kept);
        else
            restore.remove(key);
        restore.sync();
    }

    printLine(QStringLiteral("screenshots written to ") + outputDir);
    return 0;
}

}  // namespace ScreenshotMode
