#pragma once

#include <string>

namespace brisvale {

// A key-down event as the view sees it, already translated from the platform's event.
enum class KeyCode { Escape, Return, Other };

struct KeyPress {
    KeyCode code = KeyCode::Other;
    bool command = false;                     // the Command modifier (Ctrl, or Super where it arrives)
    std::string charactersIgnoringModifiers;  // the key's text without Shift or Command applied
};

enum class KeyAction { Terminate, ToggleFullScreen, PassOn };

// The view's key table, first match wins: Escape with any modifiers quits, Command-Return and
// "f" in either case (Shift and Command included) toggle full screen, everything else passes on.
KeyAction keyActionFor(const KeyPress& key);

// The two menu items, offered the key before the view sees it: "Quit Brisvale" (Command-Q) and
// "Toggle Full Screen" (Command-Return). PassOn when neither takes the key.
KeyAction menuKeyEquivalentFor(const KeyPress& key);

} // namespace brisvale
