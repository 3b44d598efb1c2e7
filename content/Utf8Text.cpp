#include "content/Utf8Text.h"

#include <cstdint>

namespace brisvale::utf8 {
namespace {

bool inRange(unsigned char c, unsigned char low, unsigned char high) {
    return c >= low && c <= high;
}

} // namespace

std::string_view beforeNul(std::string_view bytes) {
    return bytes.substr(0, bytes.find('\0'));
}

bool isValid(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        std::size_t length = 0;
        // The first continuation byte's range rules out overlong forms, surrogates and
        // code points above U+10FFFF.
        unsigned char low = 0x80;
        unsigned char high = 0xBF;
        if (lead < 0x80) {
            ++i;
            continue;
        } else if (inRange(lead, 0xC2, 0xDF)) {
            length = 2;
        } else if (inRange(lead, 0xE0, 0xEF)) {
            length = 3;
            low = lead == 0xE0 ? 0xA0 : 0x80;
            high = lead == 0xED ? 0x9F : 0xBF;
        } else if (inRange(lead, 0xF0, 0xF4)) {
            length = 4;
            low = lead == 0xF0 ? 0x90 : 0x80;
            high = lead == 0xF4 ? 0x8F : 0xBF;
        } else {
            return false;
        }
        if (text.size() - i < length ||
            !inRange(static_cast<unsigned char>(text[i + 1]), low, high)) {
            return false;
        }
        for (std::size_t k = 2; k < length; ++k) {
            if (!inRange(static_cast<unsigned char>(text[i + k]), 0x80, 0xBF)) {
                return false;
            }
        }
        i += length;
    }
    return true;
}

std::string_view withoutByteOrderMark(std::string_view text) {
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    return text.starts_with(kByteOrderMark) ? text.substr(kByteOrderMark.size()) : text;
}

char32_t next(std::string_view text, std::size_t& pos) {
    const auto lead = static_cast<unsigned char>(text[pos]);
    std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    char32_t c = length == 1 ? lead : lead & (0x7F >> length);
    for (std::size_t k = 1; k < length; ++k) {
        c = (c << 6) | (static_cast<unsigned char>(text[pos + k]) & 0x3F);
    }
    pos += length;
    return c;
}

char32_t previous(std::string_view text, std::size_t& pos) {
    do {
        --pos;
    } while ((static_cast<unsigned char>(text[pos]) & 0xC0) == 0x80);
    std::size_t at = pos;
    return next(text, at);
}

bool isSpace(char32_t c) {
    return c == U' ' || c == U'\t' || c == 0x00A0 || c == 0x1680 || (c >= 0x2000 && c <= 0x200A) ||
           c == 0x202F || c == 0x205F || c == 0x3000;
}

std::string_view trimSpaces(std::string_view text) {
    std::size_t begin = 0;
    while (begin < text.size()) {
        std::size_t after = begin;
        if (!isSpace(next(text, after))) {
            break;
        }
        begin = after;
    }
    std::size_t end = text.size();
    while (end > begin) {
        std::size_t before = end;
        if (!isSpace(previous(text, before))) {
            break;
        }
        end = before;
    }
    return text.substr(begin, end - begin);
}

} // namespace brisvale::utf8
