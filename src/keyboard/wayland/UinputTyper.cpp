#include "keyboard/wayland/UinputTyper.h"

#include <xkbcommon/xkbcommon-keysyms.h>

UinputTyper::UinputTyper(std::unique_ptr<InputEventWriter> writer, std::function<QByteArray()> keymap)
    : writer_(std::move(writer)), keymap_(std::move(keymap))
{
}

const LayoutKeys* UinputTyper::layout()
{
    const QByteArray text = keymap_();
    if (text != keymapText_ || !layout_) {
        keymapText_ = text;
        layout_ = text.isEmpty() ? std::nullopt : LayoutKeys::fromText(text);
    }
    return layout_ ? &*layout_ : nullptr;
}

WaylandTyper::Typed UinputTyper::type(const QString& text)
{
    const LayoutKeys* keys = layout();
    if (!keys)
        return Typed::notInLayout;
    const auto events = keys->typing(text);
    if (!events)
        return Typed::notInLayout;
    if (events->empty())
        return Typed::failed;
    return writer_->write(*events) ? Typed::done : Typed::failed;
}

bool UinputTyper::tap(unsigned long keysym, int times)
{
    const LayoutKeys* keys = layout();
    const auto stroke = keys ? keys->find(keysym) : std::nullopt;
    if (!stroke)
        return false;
    std::vector<InputEvent> events;
    const auto one = LayoutKeys::events(*stroke);
    for (int i = 0; i < times; ++i)
        events.insert(events.end(), one.begin(), one.end());
    return writer_->write(events);
}

bool UinputTyper::pasteKeystroke(bool terminal)
{
    const LayoutKeys* keys = layout();
    auto v = keys ? keys->find(XKB_KEY_v) : std::nullopt;
    if (!v)
        return false;
    // Control first and Shift inside it, whatever the layout needs for V itself.
    std::vector<unsigned> held{LayoutKeys::keyLeftCtrl};
    if (terminal)
        held.push_back(LayoutKeys::keyLeftShift);
    v->modifiers = held;
    return writer_->write(LayoutKeys::events(*v));
}
