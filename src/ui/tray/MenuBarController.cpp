#include "ui/tray/MenuBarController.h"

#include "keyboard/evdev/InputAccess.h"
#include "storage/Diagnostics.h"
#include "storage/Preferences.h"
#include "ui/widgets/Theme.h"
#include "ui/x11/X11Desktop.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDBusVariant>
#include <QGuiApplication>
#include <QImage>
#include <QKeyEvent>
#include <QMenu>
#include <QMessageBox>
#include <QPainter>
#include <QPixmap>
#include <QSystemTrayIcon>
#include <QTextBoundaryFinder>
#include <QTimer>

#include <algorithm>

namespace {

constexpr double kBarWidth = 3.0;
constexpr double kBarGap = 2.5;
constexpr double kBarRadius = 1.5;
constexpr double kMinBar = 3.0;

// Text property on the copy items; anything else in the submenu carries none.
constexpr const char* kTranscriptProperty = "tolvaneTranscript";

}  // namespace

MenuBarController::MenuBarController(EntriesSource entries, QObject* parent)
    : QObject(parent), entries_(std::move(entries)), barColor_(brandGreen()),
      recentMenu_(std::make_unique<QMenu>(QStringLiteral("Recent Transcripts")))
{
    if (!entries_)
        entries_ = [] { return TranscriptStore::shared().entries(); };
    recentMenu_->setToolTipsVisible(true);
}

MenuBarController::~MenuBarController()
{
    if (statusItem_)
        statusItem_->setContextMenu(nullptr);
    delete statusItem_;
    // The submenu is owned here, not by the menu it hangs from.
    if (menu_)
        menu_->clear();
}

QList<QRectF> MenuBarController::iconBarRects(const QList<double>& heights)
{
    const auto n = heights.size();
    const double group = kBarWidth * n + kBarGap * std::max<qsizetype>(n - 1, 0);
    const double left = (iconWidth - group) / 2;
    QList<QRectF> rects;
    for (qsizetype i = 0; i < n; ++i) {
        const double h = std::max(iconHeight * heights[i], kMinBar);
        // Centred vertically, so the same rectangle whichever way y runs.
        rects << QRectF(left + (kBarWidth + kBarGap) * i, iconHeight / 2 - h / 2, kBarWidth, h);
    }
    return rects;
}

QImage MenuBarController::iconImage(const QList<double>& heights, const QColor& color, double scale)
{
    QImage image(qRound(iconWidth * scale), qRound(iconHeight * scale), QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    p.scale(scale, scale);
    p.setPen(Qt::NoPen);
    p.setBrush(color);
    for (const QRectF& r : iconBarRects(heights))
        p.drawRoundedRect(r, kBarRadius, kBarRadius);
    return image;
}

QIcon MenuBarController::restingIcon() const
{
    // Coloured, not a monochrome theme icon, so the bars keep their green on light and dark panels.
    QIcon icon;
    for (double scale : {1.0, 1.5, 2.0, 3.0, 4.0}) {
        QPixmap pixmap = QPixmap::fromImage(iconImage(restingHeights_, barColor_, scale));
        icon.addPixmap(pixmap);
    }
    return icon;
}

QString MenuBarController::menuTitle(const QString& text)
{
    QString flat = text;
    flat.replace(QLatin1Char('\n'), QLatin1Char(' '));
    // Count what a reader sees as one character (a grapheme cluster), not code units.
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, flat);
    int count = 0;
    qsizetype cut = -1;
    while (finder.toNextBoundary() != -1) {
        ++count;
        if (count == titleLimit)
            cut = finder.position();
        if (count > titleLimit)
            return flat.left(cut) + QStringLiteral("…");
    }
    return flat;
}

void MenuBarController::install()
{
    if (menu_)
        return;
    menu_ = std::make_unique<QMenu>();
    connect(menu_.get(), &QMenu::aboutToShow, this, &MenuBarController::rebuildRecentMenu);

    QAction* about = menu_->addAction(QStringLiteral("About Tolvane"));
    connect(about, &QAction::triggered, this, &MenuBarController::openAbout);
    QAction* settings = menu_->addAction(QStringLiteral("Settings…"));
    settings->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Comma));
    connect(settings, &QAction::triggered, this, &MenuBarController::openSettings);
    QAction* updates = menu_->addAction(QStringLiteral("Check for Updates…"));
    connect(updates, &QAction::triggered, this, &MenuBarController::checkForUpdates);
    menu_->addMenu(recentMenu_.get());
    // The way to the comparison window: the next dictation is shown in all four cleanup modes.
    QAction* compare = menu_->addAction(QStringLiteral("Compare Cleanup Modes…"));
    connect(compare, &QAction::triggered, this, &MenuBarController::openCompare);
    menu_->addSeparator();
    QAction* quitItem = menu_->addAction(QStringLiteral("Quit Tolvane"));
    quitItem->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
    connect(quitItem, &QAction::triggered, this, &MenuBarController::quit);

    connect(recentMenu_.get(), &QMenu::triggered, this, &MenuBarController::copyTranscript);

    // Shortcuts of actions that live only in a popup menu never match Qt's window context, so the
    // open menus answer them themselves.
    menu_->installEventFilter(this);
    recentMenu_->installEventFilter(this);

    if (trayHostPresent()) {
        showIcon();
        return;
    }
    // Qt decides once per process whether the tray is reached over D-Bus, when the first icon is
    // made: made now, it would never reach a tray that starts later. So the icon waits for one.
    Diagnostics::log(QStringLiteral("menubar: no system tray is available; the menu opens from the pill, and the "
                                    "tray icon appears once a tray starts"));
    trayWatch_ = new QTimer(this);
    trayWatch_->setInterval(1000);
    connect(trayWatch_, &QTimer::timeout, this, [this] {
        if (!trayHostPresent())
            return;
        trayWatch_->stop();
        Diagnostics::log(QStringLiteral("menubar: a system tray appeared; the tray icon is in it"));
        showIcon();
        if (onTrayAppeared)
            onTrayAppeared();
    });
    trayWatch_->start();
    QTimer::singleShot(noTrayNoticeDelayMs, this, [this] {
        if (!statusItem_)
            explainMissingTray();
    });
}

void MenuBarController::showIcon()
{
    statusItem_ = new QSystemTrayIcon(this);
    statusItem_->setIcon(restingIcon());
    statusItem_->setToolTip(QStringLiteral("Tolvane"));
    statusItem_->setContextMenu(menu_.get());
    // A left click opens the same menu, as a status item does.
    connect(statusItem_, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger && menu_ && !menu_->isVisible())
            menu_->popup(QCursor::pos());
    });
    statusItem_->show();
}

void MenuBarController::popUpMenu(const QPoint& at)
{
    if (menu_ && !menu_->isVisible())
        menu_->popup(at);
}

bool MenuBarController::trayHostPresent()
{
    const QDBusConnection bus = QDBusConnection::sessionBus();
    const QString watcher = QStringLiteral("org.kde.StatusNotifierWatcher");
    if (bus.isConnected() && bus.interface()->isServiceRegistered(watcher)) {
        // One plain property read: this runs every second while there is no tray, and a
        // QDBusInterface would introspect the watcher each time.
        QDBusMessage get = QDBusMessage::createMethodCall(watcher, QStringLiteral("/StatusNotifierWatcher"),
                                                          QStringLiteral("org.freedesktop.DBus.Properties"),
                                                          QStringLiteral("Get"));
        get << watcher << QStringLiteral("IsStatusNotifierHostRegistered");
        const QDBusReply<QDBusVariant> hosted = bus.call(get);
        if (hosted.isValid() && hosted.value().variant().toBool())
            return true;
    }
    return X11Desktop::systemTrayOwned();
}

bool MenuBarController::notify(const QString& title, const QString& text)
{
    QDBusMessage call = QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.Notifications"),
                                                       QStringLiteral("/org/freedesktop/Notifications"),
                                                       QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("Notify"));
    call << QStringLiteral("Tolvane") << 0u << QStringLiteral("tolvane") << title << text << QStringList() << QVariantMap()
         << 0;  // stays until the user closes it
    const QDBusReply<uint> id = QDBusConnection::sessionBus().call(call, QDBus::Block, 2000);
    return id.isValid();
}

void MenuBarController::explainMissingTray()
{
    Preferences& prefs = Preferences::shared();
    if (prefs.value(Settings::noTrayExplained))
        return;
    prefs.setValue(Settings::noTrayExplained, true);
    const bool gnome = qEnvironmentVariable("XDG_CURRENT_DESKTOP").contains(QLatin1String("GNOME"), Qt::CaseInsensitive);
    const QString addTray =
        gnome ? QStringLiteral("GNOME shows tray icons with an extension: install the package "
                               "gnome-shell-extension-appindicator, log out and in, and turn on \"AppIndicator and "
                               "KStatusNotifierItem Support\" in the Extensions app.")
              : QStringLiteral("Add a system tray (status notifier) to your desktop's panel to see it there.");
    const QString title = QStringLiteral("Tolvane's menu is on the pill");
    const QString text = QStringLiteral("Your desktop shows no tray icons, so Tolvane's menu opens with a right-click on the "
                                        "pill. Settings and Quit are also in Tolvane's entry in the applications menu.\n\n")
                         + addTray;
    // Compositors such as sway focus every new window, whatever it asks: a message box would take
    // the keys from whatever the user is typing into. A desktop notification never does.
    if (InputAccess::waylandSession() && notify(title, text)) {
        Diagnostics::log(QStringLiteral("menubar: told the user the menu is on the pill (desktop notification)"));
        return;
    }
    auto* box = new QMessageBox(QMessageBox::Information, title, text, QMessageBox::Ok);
    box->setObjectName(QStringLiteral("noTrayNotice"));
    box->setAttribute(Qt::WA_DeleteOnClose);
    // It comes up on its own, perhaps while the user types: it must not take the keyboard.
    box->setAttribute(Qt::WA_ShowWithoutActivating);
    box->show();
    Diagnostics::log(QStringLiteral("menubar: told the user the menu is on the pill"));
}

bool MenuBarController::eventFilter(QObject* watched, QEvent* event)
{
    if (event->type() != QEvent::KeyPress || !menu_ || (watched != menu_.get() && watched != recentMenu_.get()))
        return QObject::eventFilter(watched, event);
    const auto* key = static_cast<QKeyEvent*>(event);
    const QKeySequence pressed(key->keyCombination());
    for (QAction* action : menu_->actions()) {
        if (!action->shortcut().isEmpty() && action->shortcut() == pressed && action->isEnabled()) {
            menu_->close();
            action->trigger();
            return true;
        }
    }
    return QObject::eventFilter(watched, event);
}

void MenuBarController::stopAnimating()
{
    if (timer_) {
        timer_->stop();
        timer_->deleteLater();
        timer_ = nullptr;
    }
    processing_ = false;
    amplitude_ = 0;
    displayedAmp_ = 0;
    if (statusItem_)
        statusItem_->setIcon(restingIcon());
}

void MenuBarController::setAmplitude(double level)
{
    // Kept for a livelier icon later; the resting icon does not draw it.
    amplitude_ = std::clamp(level, 0.0, 1.0);
}

void MenuBarController::openAbout()
{
    if (onAbout)
        onAbout();
}

void MenuBarController::openSettings()
{
    if (onOpenSettings)
        onOpenSettings();
}

void MenuBarController::checkForUpdates()
{
    if (onCheckForUpdates)
        onCheckForUpdates();
}

void MenuBarController::openCompare()
{
    if (onCompare)
        onCompare();
}

void MenuBarController::quit()
{
    QMetaObject::invokeMethod(qApp, &QCoreApplication::quit, Qt::QueuedConnection);
}

void MenuBarController::copyTranscript(QAction* item)
{
    if (!item)
        return;
    const QVariant text = item->property(kTranscriptProperty);
    if (text.typeId() != QMetaType::QString)
        return;
    QGuiApplication::clipboard()->setText(text.toString(), QClipboard::Clipboard);
}

void MenuBarController::rebuildRecentMenu()
{
    recentMenu_->clear();
    QList<TranscriptEntry> list = entries_();
    std::reverse(list.begin(), list.end());
    if (list.isEmpty()) {
        recentMenu_->addAction(QStringLiteral("No transcripts yet"))->setEnabled(false);
        return;
    }
    recentMenu_->addAction(QStringLiteral("Click to copy"))->setEnabled(false);
    recentMenu_->addSeparator();
    for (const TranscriptEntry& entry : list) {
        // "&" would be read as a mnemonic marker.
        QAction* item = recentMenu_->addAction(menuTitle(entry.text).replace(QLatin1Char('&'), QStringLiteral("&&")));
        item->setProperty(kTranscriptProperty, entry.text);
        item->setToolTip(entry.text);
    }
}
