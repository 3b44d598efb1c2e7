#include "content/ArchivePath.h"

#include <algorithm>
#include <cstdio>
#include <vector>

namespace brisvale {
namespace {

void finishSegment(std::vector<std::string_view>& segments, std::string_view segment) {
    if (segment == "..") {
        if (!segments.empty()) {
            segments.pop_back();
        }
    } else if (!segment.empty() && segment != ".") {
        segments.push_back(segment);
    }
}

// The length of the strict UTF-8 character at the start of `text` (shortest form, no
// surrogates, nothing above U+10FFFF), or 0 when there is none.
std::size_t utf8Length(std::string_view text) {
    auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    const std::size_t length = lead < 0x80                   ? 1
                               : lead >= 0xC2 && lead <= 0xDF ? 2
                               : lead >= 0xE0 && lead <= 0xEF ? 3
                               : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                              : 0;
    if (length == 0 || length > text.size()) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    const bool outOfRange = (lead == 0xE0 && byte(1) < 0xA0) || (lead == 0xED && byte(1) >= 0xA0) ||
                            (lead == 0xF0 && byte(1) < 0x90) || (lead == 0xF4 && byte(1) >= 0x90);
    return outOfRange ? 0 : length;
}

} // namespace

std::string normalizeArchivePath(std::string_view path) {
    std::vector<std::string_view> segments;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= path.size(); ++i) {
        if (i == path.size() || path[i] == '/' || path[i] == '\\') {
            finishSegment(segments, path.substr(start, i - start));
            start = i + 1;
        }
    }
    std::string result;
    for (std::string_view segment : segments) {
        if (!result.empty()) {
            result += '/';
        }
        result += segment;
    }
    return result;
}

std::string joinArchivePath(std::string_view base, std::string_view relative) {
    std::string resolved = normalizeArchivePath(relative);
    if (resolved.empty()) {
        return normalizeArchivePath(base);
    }
    const std::string normalizedBase = normalizeArchivePath(base);
    const std::size_t lastSlash = normalizedBase.rfind('/');
    if (lastSlash == std::string::npos) {
        return resolved;
    }
    // Joined before normalising, so leading ".." segments climb out of base's directory.
    std::string joined = normalizedBase.substr(0, lastSlash + 1);
    joined += relative;
    return normalizeArchivePath(joined);
}

std::string printableArchivePath(std::string_view path) {
    std::string out;
    for (std::size_t at = 0; at < path.size();) {
        const std::size_t length = utf8Length(path.substr(at));
        const auto lead = static_cast<unsigned char>(path[at]);
        const bool control = (length == 1 && (lead < 0x20 || lead == 0x7F)) ||
                             (length == 2 && lead == 0xC2 &&
                              static_cast<unsigned char>(path[at + 1]) < 0xA0);
        if (length != 0 && !control) {
            out += path.substr(at, length);
            at += length;
            continue;
        }
        for (std::size_t i = 0; i < std::max<std::size_t>(length, 1); ++i) {
            char escaped[5];
            std::snprintf(escaped, sizeof escaped, "\\x%02X",
                          static_cast<unsigned char>(path[at + i]));
            out += escaped;
        }
        at += std::max<std::size_t>(length, 1);
    }
    return out;
}

} // namespace brisvale
