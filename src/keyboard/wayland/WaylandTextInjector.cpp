#include "keyboard/wayland/WaylandTextInjector.h"

#include "keyboard/TerminalClasses.h"
#include "keyboard/TextKeysyms.h"
#include "keyboard/evdev/UinputKeyboard.h"
#include "keyboard/wayland/DataControlClipboard.h"
#include "keyboard/wayland/UinputTyper.h"
#include "keyboard/wayland/VirtualKeyboardTyper.h"
#include "keyboard/wayland/WaylandConnection.h"
#include "keyboard/x11/TextInjector.h"
#include "keyboard/x11/X11Clipboard.h"
#include "storage/Preferences.h"


WaylandTextInjector::WaylandTextInjector(UinputFactory uinput, QObject* parent)
    : QObject(parent), connection_(std::make_unique<WaylandConnection>())
{
    if (!uinput)
        uinput = [](QString* error) { return UinputKeyboard::create(error); };
    QString connectionError;
    const bool connected = connection_->open(&connectionError);
    QStringList typing, pasting, terminals;

    if (connected)
        typer_ = VirtualKeyboardTyper::create(*connection_);
    if (!typer_) {
        const QString noProtocol = connected ? QStringLiteral("the compositor offers no zwp_virtual_keyboard_v1") : connectionError;
        QString uinputError;
        if (auto writer = uinput(&uinputError)) {
            WaylandConnection* c = connection_.get();
            typer_ = std::make_unique<UinputTyper>(std::move(writer), [c] { return c->userKeymap(); });
            typing << typer_->name() + QStringLiteral(" (") + noProtocol + QLatin1Char(')');
        } else {
            xtest_ = std::make_unique<TextInjector>();
            typing << QStringLiteral("XTest through Xwayland, X11 applications only (") + noProtocol + QStringLiteral("; ")
                          + uinputError + QLatin1Char(')');
        }
    } else {
        typing << typer_->name();
    }

    if (connected)
        dataControl_ = DataControlClipboard::create(*connection_);
    if (dataControl_) {
        pasting << QString::fromLatin1(dataControl_->protocol());
    } else {
        xwaylandClipboard_ = std::make_unique<X11Clipboard>();
        QString why = connectionError;
        if (connected && !connection_->extDataControl() && !connection_->wlrDataControl())
            why = QStringLiteral("the compositor offers neither ext_data_control_manager_v1 nor zwlr_data_control_manager_v1");
        else if (connected && !connection_->seat())
            why = QStringLiteral("the compositor offers a data-control protocol but no seat");
        else if (connected)
            why = QStringLiteral("the compositor stopped answering");
        pasting << QStringLiteral("the Xwayland clipboard (") + why + QLatin1Char(')');
    }
    if (connected && connection_->knowsActiveWindow())
        terminals << QStringLiteral("terminals told by the active window's app id (zwlr_foreign_toplevel_manager_v1)");
    else
        terminals << QStringLiteral("text typed rather than pasted, terminals cannot be told apart (the compositor offers no "
                                    "zwlr_foreign_toplevel_manager_v1)");
    description_ = QStringLiteral("typing through ") + typing.join(QString()) + QStringLiteral("; pasting through ")
                   + pasting.join(QString()) + QStringLiteral("; ") + terminals.join(QString());
}

WaylandTextInjector::~WaylandTextInjector()
{
    // The typer and the clipboard talk through the connection: they go first.
    typer_.reset();
    dataControl_.reset();
}

bool WaylandTextInjector::insertText(const QString& text)
{
    if (text.isEmpty())
        return false;
    if (xtest_)
        return xtest_->insertText(text);
    switch (typer_->type(text)) {
    case WaylandTyper::Typed::done:
        return true;
    case WaylandTyper::Typed::notInLayout:
        return typeOrPaste(text, false);
    case WaylandTyper::Typed::failed:
        break;
    }
    return false;
}

void WaylandTextInjector::deleteBackward(int count)
{
    if (count < 1)
        return;
    if (xtest_)
        xtest_->deleteBackward(count);
    else
        typer_->tap(TextKeysyms::backSpaceKeysym, count);
}

void WaylandTextInjector::pressReturn()
{
    if (xtest_)
        xtest_->pressReturn();
    else
        typer_->tap(TextKeysyms::returnKeysym, 1);
}

bool WaylandTextInjector::pasteViaClipboard(const QString& text) { return typeOrPaste(text, true); }

bool WaylandTextInjector::typeOrPaste(const QString& text, bool preferTyping)
{
    if (xtest_)
        return xtest_->pasteViaClipboard(text);
    const bool knowsWindow = connection_->knowsActiveWindow();
    // Ctrl+V in a terminal is no paste: without knowing the window, typing is the safe way.
    if (preferTyping && !knowsWindow) {
        const auto typed = typer_->type(text);
        if (typed != WaylandTyper::Typed::notInLayout)
            return typed == WaylandTyper::Typed::done;
    }
    const QString appId = connection_->activeAppId();
    const bool terminal = knowsWindow && TerminalClasses::isTerminal(appId, appId, Preferences::shared().value(Settings::terminalClasses));
    // What this process's own windows copied lives in Qt, which answers on this thread: read it here.
    std::optional<ClipboardContent> own = ClipboardContent::ownedByThisProcess();
    if (dataControl_) {
        if (!dataControl_->setForPaste(text, std::move(own)) || !typer_->pasteKeystroke(terminal))
            return false;
        dataControl_->keystrokeSent();
        return true;
    }
    if (!xwaylandClipboard_->setForPaste(text, std::move(own)))
        return false;
    xwaylandClipboard_->keystrokeSending();
    return typer_->pasteKeystroke(terminal);
}
