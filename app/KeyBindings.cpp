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

AuthorCommand authorCommandFor(const KeyPress& key) {
    if (key.command) {
        return {};
    }
    const double move = key.shift ? 1.0 : 5.0;
    switch (key.code) {
    case KeyCode::Left:
        return {AuthorAction::Move, -move, 0};
    case KeyCode::Right:
        return {AuthorAction::Move, move, 0};
    case KeyCode::Home:
        return {AuthorAction::GoToStart, 0.0, 0};
    case KeyCode::Other:
        break;
    default:
        return {};
    }
    const std::string text = lowerCased(key.charactersIgnoringModifiers);
    if (text == " ") return {AuthorAction::TogglePause, 0.0, 0};
    if (text == ",") return {AuthorAction::StepFrames, 0.0, -1};
    if (text == ".") return {AuthorAction::StepFrames, 0.0, 1};
    if (text == "h") return {AuthorAction::ToggleStatus, 0.0, 0};
    return {};
}

} // namespace brisvale
