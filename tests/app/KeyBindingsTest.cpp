#include <gtest/gtest.h>

#include "app/KeyBindings.h"

namespace brisvale {
namespace {

KeyPress key(KeyCode code, bool command, std::string characters) {
    return KeyPress{code, command, std::move(characters)};
}

TEST(ViewKeyTable, EscapeQuitsWithAnyModifiers) {
    // Escape's text varies with the platform (often "\x1b", sometimes empty); only the code counts.
    EXPECT_EQ(keyActionFor(key(KeyCode::Escape, false, "\x1b")), KeyAction::Terminate);
    EXPECT_EQ(keyActionFor(key(KeyCode::Escape, true, "\x1b")), KeyAction::Terminate);
    EXPECT_EQ(keyActionFor(key(KeyCode::Escape, false, "")), KeyAction::Terminate);
    // Escape comes before the "f" row even if a platform reported odd text for it.
    EXPECT_EQ(keyActionFor(key(KeyCode::Escape, true, "f")), KeyAction::Terminate);
}

TEST(ViewKeyTable, FTogglesInEitherCaseAndWithCommand) {
    EXPECT_EQ(keyActionFor(key(KeyCode::Other, false, "f")), KeyAction::ToggleFullScreen);
    EXPECT_EQ(keyActionFor(key(KeyCode::Other, false, "F")), KeyAction::ToggleFullScreen);
    EXPECT_EQ(keyActionFor(key(KeyCode::Other, true, "f")), KeyAction::ToggleFullScreen);
    EXPECT_EQ(keyActionFor(key(KeyCode::Other, true, "F")), KeyAction::ToggleFullScreen);
}

TEST(ViewKeyTable, CommandReturnTogglesAndReturnAlonePassesOn) {
    EXPECT_EQ(keyActionFor(key(KeyCode::Return, true, "\r")), KeyAction::ToggleFullScreen);
    EXPECT_EQ(keyActionFor(key(KeyCode::Return, false, "\r")), KeyAction::PassOn);
}

TEST(ViewKeyTable, OtherKeysPassOn) {
    EXPECT_EQ(keyActionFor(key(KeyCode::Other, false, "g")), KeyAction::PassOn);
    EXPECT_EQ(keyActionFor(key(KeyCode::Other, false, "ff")), KeyAction::PassOn);
    EXPECT_EQ(keyActionFor(key(KeyCode::Other, false, "")), KeyAction::PassOn);
    EXPECT_EQ(keyActionFor(key(KeyCode::Other, true, "q")), KeyAction::PassOn);
}

TEST(MenuKeyEquivalents, CommandQQuitsAndCommandReturnToggles) {
    EXPECT_EQ(menuKeyEquivalentFor(key(KeyCode::Other, true, "q")), KeyAction::Terminate);
    EXPECT_EQ(menuKeyEquivalentFor(key(KeyCode::Other, true, "Q")), KeyAction::Terminate);
    EXPECT_EQ(menuKeyEquivalentFor(key(KeyCode::Return, true, "\r")), KeyAction::ToggleFullScreen);
}

TEST(MenuKeyEquivalents, WithoutCommandTheMenuTakesNothing) {
    EXPECT_EQ(menuKeyEquivalentFor(key(KeyCode::Other, false, "q")), KeyAction::PassOn);
    EXPECT_EQ(menuKeyEquivalentFor(key(KeyCode::Return, false, "\r")), KeyAction::PassOn);
    EXPECT_EQ(menuKeyEquivalentFor(key(KeyCode::Escape, true, "\x1b")), KeyAction::PassOn);
    EXPECT_EQ(menuKeyEquivalentFor(key(KeyCode::Other, true, "f")), KeyAction::PassOn);
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

TEST(AuthorKeys, CommandAndOtherKeysDoNothing) {
    EXPECT_EQ(authorCommandFor(key(KeyCode::Left, true, "")).action, AuthorAction::None);
    EXPECT_EQ(authorCommandFor(key(KeyCode::Other, true, " ")).action, AuthorAction::None);
    EXPECT_EQ(authorCommandFor(key(KeyCode::Other, false, "g")).action, AuthorAction::None);
    EXPECT_EQ(authorCommandFor(key(KeyCode::Return, false, "\r")).action, AuthorAction::None);
    EXPECT_EQ(authorCommandFor(key(KeyCode::Other, false, "")).action, AuthorAction::None);
    // The view's own keys stay the view's.
    EXPECT_EQ(authorCommandFor(key(KeyCode::Other, false, "f")).action, AuthorAction::None);
    EXPECT_EQ(authorCommandFor(key(KeyCode::Escape, false, "\x1b")).action, AuthorAction::None);
}

} // namespace
} // namespace brisvale
