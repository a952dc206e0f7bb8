#pragma once

#include "core/Collaborators.h"
#include "storage/TranscriptStore.h"

#include <QColor>
#include <QIcon>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QRectF>

#include <functional>
#include <memory>

class QAction;
class QMenu;
class QSystemTrayIcon;
class QTimer;

// The tray icon (three green bars) and its menu: About, Settings…, Check for Updates…, the recent
// transcripts (a click copies one to the clipboard) and Quit. It decides nothing about dictation;
// its owner sets the callbacks. The icon is drawn at rest and does not follow the input level.
class MenuBarController final : public QObject, public AbstractMenuBar {
    Q_OBJECT
public:
    using EntriesSource = std::function<QList<TranscriptEntry>()>;

    static constexpr double iconWidth = 18.0;
    static constexpr double iconHeight = 16.0;
    static constexpr int titleLimit = 60;

    // `entries` lists the saved transcripts, oldest first, and is read each time the menu opens;
    // left empty it is the shared TranscriptStore. Nothing is shown before install().
    explicit MenuBarController(EntriesSource entries = {}, QObject* parent = nullptr);
    ~MenuBarController() override;

    // Builds the menu; the icon follows as soon as the desktop has a tray to show it in.
    void install() override;
    void stopAnimating() override;
    void setAmplitude(double level) override;
    bool hasTray() const override { return statusItem_ != nullptr; }
    void popUpMenu(const QPoint& at) override;

    // Called when a tray turns up after install(); the icon is then in it.
    std::function<void()> onTrayAppeared;
    // How long a desktop may take to start its tray before the user is told where the menu is.
    int noTrayNoticeDelayMs = 10000;

    // A status-notifier host (the modern tray) is registered on the session bus, or an XEmbed
    // tray runs on the X display.
    static bool trayHostPresent();
    double amplitude() const { return amplitude_; }

    // The menu actions; each calls its callback when one is set.
    void openAbout();
    void openSettings();
    void checkForUpdates();
    void openCompare();
    void quit();
    // Puts the action's transcript on the clipboard; any other action does nothing.
    void copyTranscript(QAction* item);
    // Refills "Recent Transcripts", newest first; runs every time the menu opens.
    void rebuildRecentMenu();

    // The icon's bars for the given heights (fractions of the icon's height), in points on the
    // 18 × 16 icon, left to right.
    static QList<QRectF> iconBarRects(const QList<double>& heights);
    // The icon drawn at a scale (device pixels per point).
    static QImage iconImage(const QList<double>& heights, const QColor& color, double scale);
    // A transcript's line in the menu: line feeds as spaces, at most 60 characters as a reader
    // counts them, then "…".
    static QString menuTitle(const QString& text);

    QSystemTrayIcon* trayIcon() const { return statusItem_; }
    QMenu* menu() const { return menu_.get(); }
    QMenu* recentMenu() const { return recentMenu_.get(); }
    const QList<double>& restingHeights() const { return restingHeights_; }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    QIcon restingIcon() const;
    void showIcon();
    void explainMissingTray();
    // Shows a desktop notification; false when no notification service answered.
    static bool notify(const QString& title, const QString& text);

    EntriesSource entries_;
    QSystemTrayIcon* statusItem_ = nullptr;
    QTimer* timer_ = nullptr;
    QTimer* trayWatch_ = nullptr;
    double phase_ = 0;
    double amplitude_ = 0;
    double displayedAmp_ = 0;
    bool processing_ = false;
    QColor barColor_;
    QList<double> restingHeights_{0.45, 0.85, 0.62};
    std::unique_ptr<QMenu> recentMenu_;
    std::unique_ptr<QMenu> menu_;
};
