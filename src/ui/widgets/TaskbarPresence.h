#pragma once

class QWidget;

// Whether Tolvane's windows appear in the desktop's taskbar (the "Show taskbar icon" setting).
// Windows kept out of it are tool windows, which desktops leave off their task lists.
namespace TaskbarPresence {

// Registers one of Tolvane's top-level windows and gives it the stored presence.
void manage(QWidget* window);
// Gives every registered window the presence; visible windows stay visible and focused.
void apply(bool showInTaskbar);

}  // namespace TaskbarPresence
