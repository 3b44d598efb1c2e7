#pragma once

#include <string>

namespace brisvale {

// A key-down event as the view sees it, already translated from the platform's event.
enum class KeyCode { Escape, Return, Left, Right, Home, Other };

struct KeyPress {
    KeyCode code = KeyCode::Other;
    bool command = false;                     // the Command modifier (Ctrl, or Super where it arrives)
    std::string charactersIgnoringModifiers;  // the key's text without Shift or Command applied
    bool shift = false;
};

enum class KeyAction { Terminate, ToggleFullScreen, PassOn };

// The view's key table, first match wins: Escape with any modifiers quits, Command-Return and
// "f" in either case (Shift and Command included) toggle full screen, everything else passes on.
KeyAction keyActionFor(const KeyPress& key);

// The two menu items, offered the key before the view sees it: "Quit Brisvale" (Command-Q) and
// "Toggle Full Screen" (Command-Return). PassOn when neither takes the key.
KeyAction menuKeyEquivalentFor(const KeyPress& key);

// Author mode's keys, for what the view's table passes on: Space pauses and resumes; Left and
// Right move 5 s back or on (1 s with Shift); "," and "." step one frame back or on while paused;
// Home goes to the show's beginning; "h" shows or hides the status line. Not with Command: those
// belong to the menu.
enum class AuthorAction { None, TogglePause, Move, StepFrames, GoToStart, ToggleStatus };

struct AuthorCommand {
    AuthorAction action = AuthorAction::None;
    double seconds = 0.0;  // Move: how far, negative to go back
    int frames = 0;        // StepFrames: how many, negative to go back
};

AuthorCommand authorCommandFor(const KeyPress& key);

} // namespace brisvale
