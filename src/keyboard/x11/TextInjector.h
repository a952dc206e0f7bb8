#pragma once

#include "core/Collaborators.h"
#include "keyboard/TypingPlan.h"

#include <QObject>
#include <QPointer>

#include <chrono>
#include <memory>

class HotkeyManager;
class QTimer;
class X11Clipboard;

// Types, erases and pastes into the focused X11 window through XTest, on a connection of its own.
// Characters the current layout has are typed on their own keys; the rest go on spare keycodes,
// several per mapping change, which are cleared again once typing has been idle for a moment.
// Modifiers the user still holds are released first, so text never arrives as shortcuts.
// GUI thread only; nothing here logs or throws.
class TextInjector final : public QObject, public AbstractTextInjector {
    Q_OBJECT
public:
    // Spare keycodes are cleared this long after the last typing.
    static constexpr std::chrono::milliseconds mappingRestoreDelay{500};
    // Before a spare keycode gets a new keysym, clients must have read the mapping under which it
    // was pressed: wait this long after the last keystroke, plus a little per keystroke still queued.
    static constexpr std::chrono::milliseconds remapSettleBase{20};
    static constexpr std::chrono::microseconds remapSettlePerStroke{40};

    explicit TextInjector(QObject* parent = nullptr);
    ~TextInjector() override;

    // The running key monitor, told about every key posted here so it does not take them for the
    // user's (a typed Space while the activation key is held is no chord).
    void setHotkeyManager(HotkeyManager* monitor);

    bool insertText(const QString& text) override;
    void deleteBackward(int count) override;
    bool pasteViaClipboard(const QString& text) override;
    void pressReturn() override;

    // Clears the spare keycodes now (also done by itself after typing and on destruction).
    void restoreMapping();
    bool mappingRestored() const { return !pool_.anyAssigned(); }

private:
    struct Connection;

    bool ensureConnection();
    void releaseHeldModifiers();
    void key(unsigned keycode, bool press);
    void tapKeysym(unsigned long keysym, int times);
    void settle();
    bool focusedWindowIsTerminal();

    std::unique_ptr<Connection> x_;
    std::unique_ptr<X11Clipboard> clipboard_;  // made on the first paste: it runs a thread
    SpareKeyPool pool_;
    QPointer<HotkeyManager> monitor_;
    QTimer* restoreTimer_ = nullptr;
    std::chrono::steady_clock::time_point lastStroke_{};
    long strokesSinceSettle_ = 0;
};
