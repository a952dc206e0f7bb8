#include "keyboard/KeyClassifier.h"

KeyCommand KeyClassifier::handle(bool press, unsigned keycode, unsigned activationKeycode, bool isModifier)
{
    if (activationKeycode != 0 && keycode == activationKeycode) {
        if (press && !optionDown_) {
            optionDown_ = true;
            return KeyCommand::optionDown;
        }
        if (!press && optionDown_) {
            optionDown_ = false;
            return KeyCommand::optionUp;
        }
        return KeyCommand::none;  // auto-repeat of the held key, or a release already seen
    }
    if (!press)
        return KeyCommand::none;  // releases of other keys are not watched
    if (keycode == codes_.escape)
        return KeyCommand::escape;
    if (keycode == codes_.space && optionDown_)
        return KeyCommand::toggleChord;
    if (isModifier)
        return KeyCommand::none;  // the other side's modifier, Shift, Ctrl...: a flag change only
    return KeyCommand::anyKey;
}
