#pragma once

#include "core/Collaborators.h"
#include "keyboard/KeyClassifier.h"
#include "keyboard/SyntheticKeyLog.h"

#include <QObject>

#include <functional>
#include <memory>

class QSocketNotifier;
class QTimer;

// The system-wide key monitor on X11. It reads XInput2 raw key events of the root window on a
// connection of its own, so it sees every key whichever window has the focus, and swallows the
// chord's Space with a passive grab held only while the activation key is down. Everything runs on
// the GUI thread; the callbacks are posted to a later turn of its event loop. A lost connection
// fires nothing and is reopened by itself every `reconnectIntervalMs`.
class HotkeyManager final : public QObject, public AbstractHotkeyManager {
    Q_OBJECT
public:
    // How long to wait before reconnecting after the X connection was lost.
    static constexpr int reconnectIntervalMs = 1000;

    explicit HotkeyManager(QObject* parent = nullptr);
    ~HotkeyManager() override;

    void setActivationKey(ActivationKey key) override;
    ActivationKey activationKey() const override { return activationKey_; }
    bool start() override;
    void stop() override;

    bool isOptionDown() const { return classifier_.isOptionDown(); }

    // Key events Tolvane posts itself; hand it to the TextInjector so its typing is not taken for
    // the user's keys.
    SyntheticKeyLog& syntheticKeys() { return synthetic_; }

    // Presses and releases a keycode without symbols, so the desktop and the focused window see the
    // held activation key as used with another key: its release then opens no menu or launcher.
    // Called whenever the activation key goes down (which also covers the tap that ends a
    // hands-free dictation).
    void neutralizeModifierTap();

    // The monitor's X connection, for tests that break it. -1 when not running.
    int connectionFd() const;

private:
    struct Connection;

    bool open();
    void onReadable();
    void processPending();
    void handleKey(bool press, unsigned keycode, int sourceId);
    void schedule(std::function<void()> AbstractHotkeyManager::*callback);
    void grabSpace(bool grab);
    void connectionLost();
    void tryReconnect();

    ActivationKey activationKey_ = ActivationKey::leftOption;
    KeyClassifier classifier_;
    SyntheticKeyLog synthetic_;
    std::unique_ptr<Connection> x_;
    QSocketNotifier* notifier_ = nullptr;
    QTimer* reconnect_ = nullptr;
    bool wanted_ = false;  // start() succeeded and stop() was not called since
};
