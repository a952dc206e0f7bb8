#pragma once

#include "core/Collaborators.h"
#include "keyboard/InputEventWriter.h"

#include <QObject>
#include <QString>

#include <functional>
#include <memory>

class DataControlClipboard;
class TextInjector;
class WaylandConnection;
class WaylandTyper;
class X11Clipboard;

// Types and pastes into the focused application of a Wayland session, with the best backends the
// compositor allows, chosen once at start-up: typing through zwp_virtual_keyboard_v1 with Tolvane's
// own keymap, else a uinput keyboard through the user's layout, else XTest through Xwayland (X11
// applications only); pasting through a data-control protocol, else the Xwayland clipboard.
// Terminals (told by the active window's app id) paste with Ctrl+Shift+V; where the compositor
// does not tell which window is active, text is typed rather than pasted. GUI thread only.
class WaylandTextInjector final : public QObject, public AbstractTextInjector {
    Q_OBJECT
public:
    using UinputFactory = std::function<std::unique_ptr<InputEventWriter>(QString* error)>;

    // `uinput` makes the uinput keyboard (the default writes to /dev/uinput).
    explicit WaylandTextInjector(UinputFactory uinput = {}, QObject* parent = nullptr);
    ~WaylandTextInjector() override;

    // The backends chosen, and why a better one was not available, for the start-up log line.
    const QString& description() const { return description_; }

    bool insertText(const QString& text) override;
    void deleteBackward(int count) override;
    bool pasteViaClipboard(const QString& text) override;
    void pressReturn() override;

private:
    bool typeOrPaste(const QString& text, bool preferTyping);

    std::unique_ptr<WaylandConnection> connection_;
    std::unique_ptr<WaylandTyper> typer_;
    std::unique_ptr<DataControlClipboard> dataControl_;
    std::unique_ptr<X11Clipboard> xwaylandClipboard_;
    std::unique_ptr<TextInjector> xtest_;  // only when nothing better can type
    QString description_;
};
