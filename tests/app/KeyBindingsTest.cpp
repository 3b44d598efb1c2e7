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

} // namespace
} // namespace brisvale
