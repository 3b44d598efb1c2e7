#include <gtest/gtest.h>

#include "app/KeyBindings.h"

namespace brisvale {
namespace {

KeyPress key(KeyCode code, bool command, std::string characters) {
    return KeyPress{code, command, std::move(characters)};
}

// The view's table and the menu's key equivalents for the same keys, none of them author mode's.
TEST(ViewKeyTable, EachKeyItsViewActionAndMenuItem) {
    using enum KeyAction;
    struct Case {
        KeyPress key;
        KeyAction view, menu;
    };
    const Case cases[] = {
        // Escape's text varies with the platform (often "\x1b", sometimes empty); only the code
        // counts, and it comes before the "f" row even with odd text.
        {key(KeyCode::Escape, false, "\x1b"), Terminate, PassOn},
        {key(KeyCode::Escape, false, ""), Terminate, PassOn},
        {key(KeyCode::Escape, true, "f"), Terminate, PassOn},
        {key(KeyCode::Other, false, "f"), ToggleFullScreen, PassOn},
        {key(KeyCode::Other, false, "F"), ToggleFullScreen, PassOn},
        {key(KeyCode::Other, true, "f"), ToggleFullScreen, PassOn},
        {key(KeyCode::Return, true, "\r"), ToggleFullScreen, ToggleFullScreen},
        {key(KeyCode::Return, false, "\r"), PassOn, PassOn},
        {key(KeyCode::Other, true, "q"), PassOn, Terminate},
        {key(KeyCode::Other, true, "Q"), PassOn, Terminate},
        {key(KeyCode::Other, false, "q"), PassOn, PassOn},
        {key(KeyCode::Other, false, "g"), PassOn, PassOn},
        {key(KeyCode::Other, false, "ff"), PassOn, PassOn},
        {key(KeyCode::Other, false, ""), PassOn, PassOn},
        {key(KeyCode::Left, true, ""), PassOn, PassOn},  // author keys with Command are the menu's
        {key(KeyCode::Other, true, " "), PassOn, PassOn},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(keyActionFor(c.key), c.view) << "case " << &c - cases;
        EXPECT_EQ(menuKeyEquivalentFor(c.key), c.menu) << "case " << &c - cases;
        EXPECT_EQ(authorCommandFor(c.key).action, AuthorAction::None) << "case " << &c - cases;
    }
}

// Author mode's keys come after the view's table: it must pass them on, and they act only then.
TEST(AuthorKeys, EachKeyItsCommandAndTheViewPassesThemOn) {
    struct Case {
        KeyPress key;
        AuthorAction action;
        double seconds;
        int frames;
    };
    const Case cases[] = {
        {{KeyCode::Other, false, " "}, AuthorAction::TogglePause, 0.0, 0},
        {{KeyCode::Left, false, ""}, AuthorAction::Move, -5.0, 0},
        {{KeyCode::Right, false, ""}, AuthorAction::Move, 5.0, 0},
        {{KeyCode::Left, false, "", true}, AuthorAction::Move, -1.0, 0},
        {{KeyCode::Right, false, "", true}, AuthorAction::Move, 1.0, 0},
        {{KeyCode::Other, false, ","}, AuthorAction::StepFrames, 0.0, -1},
        {{KeyCode::Other, false, ".", true}, AuthorAction::StepFrames, 0.0, 1},
        {{KeyCode::Home, false, ""}, AuthorAction::GoToStart, 0.0, 0},
        {{KeyCode::Other, false, "h"}, AuthorAction::ToggleStatus, 0.0, 0},
        {{KeyCode::Other, false, "H", true}, AuthorAction::ToggleStatus, 0.0, 0},
    };
    for (const Case& c : cases) {
        const AuthorCommand command = authorCommandFor(c.key);
        EXPECT_EQ(command.action, c.action) << c.key.charactersIgnoringModifiers;
        EXPECT_EQ(command.seconds, c.seconds) << c.key.charactersIgnoringModifiers;
        EXPECT_EQ(command.frames, c.frames) << c.key.charactersIgnoringModifiers;
        EXPECT_EQ(keyActionFor(c.key), KeyAction::PassOn);
        EXPECT_EQ(menuKeyEquivalentFor(c.key), KeyAction::PassOn);
    }
}

} // namespace
} // namespace brisvale
