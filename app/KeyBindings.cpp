#include "app/KeyBindings.h"

#include <algorithm>

namespace brisvale {
namespace {

std::string lowerCased(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) {
        return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    });
    return text;
}

} // namespace

KeyAction keyActionFor(const KeyPress& key) {
    if (key.code == KeyCode::Escape) {
        return KeyAction::Terminate;
    }
    if (key.command && key.code == KeyCode::Return) {
        return KeyAction::ToggleFullScreen;
    }
    if (lowerCased(key.charactersIgnoringModifiers) == "f") {
        return KeyAction::ToggleFullScreen;
    }
    return KeyAction::PassOn;
}

KeyAction menuKeyEquivalentFor(const KeyPress& key) {
    if (!key.command) {
        return KeyAction::PassOn;
    }
    if (key.code == KeyCode::Return) {
        return KeyAction::ToggleFullScreen;
    }
    if (lowerCased(key.charactersIgnoringModifiers) == "q") {
        return KeyAction::Terminate;
    }
    return KeyAction::PassOn;
}

} // namespace brisvale
