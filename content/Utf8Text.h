#pragma once

#include <string_view>

// Small UTF-8 helpers shared by the readers of the text formats in the archive (the asset
// manifest and shader sources). Internal to the content library.
namespace brisvale::utf8 {

// The bytes before the first NUL, or all of them.
std::string_view beforeNul(std::string_view bytes);

// Strict UTF-8: shortest forms only, no surrogates, nothing above U+10FFFF.
bool isValid(std::string_view text);

// A leading U+FEFF removed, if there is one.
std::string_view withoutByteOrderMark(std::string_view text);

// The code point starting at `pos` in valid UTF-8; advances `pos` past it.
char32_t next(std::string_view text, std::size_t& pos);
// The code point ending at `pos` in valid UTF-8; moves `pos` back to its first byte.
char32_t previous(std::string_view text, std::size_t& pos);

// The Unicode space separators and the tab.
bool isSpace(char32_t c);

// `text` without leading and trailing code points for which isSpace is true.
std::string_view trimSpaces(std::string_view text);

} // namespace brisvale::utf8
