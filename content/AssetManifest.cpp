// The asset manifest: Unicode key = value lines whose "image.<index>.path" keys list the
// show's images.

#include "content/AssetManifest.h"

#include <cstdint>
#include <limits>
#include <map>
#include <stdexcept>

#include "content/ArchivePath.h"
#include "content/Utf8Text.h"

namespace brisvale {
namespace {

constexpr const char* kDecodeFailed = "Failed to decode asset manifest";
constexpr std::string_view kKeyPrefix = "image.";
constexpr std::string_view kKeySuffix = ".path";

bool isLineBreak(char32_t c) {
    return (c >= 0x0A && c <= 0x0D) || c == 0x0085 || c == 0x2028 || c == 0x2029;
}

// A signed decimal number at the start of `text` after white space; 0 when there is none.
// Values beyond the signed 64-bit range saturate at its ends: such a key still names an image,
// and it keeps its place after (or before) every smaller index rather than wrapping around.
std::int64_t parseIndex(std::string_view text) {
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t after = pos;
        const char32_t c = utf8::next(text, after);
        if (!utf8::isSpace(c) && !isLineBreak(c)) {
            break;
        }
        pos = after;
    }
    bool negative = false;
    if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
        negative = text[pos] == '-';
        ++pos;
    }
    // Accumulated as a negative number, whose range is the larger one.
    constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
    std::int64_t value = 0;
    bool saturated = false;
    for (; pos < text.size() && text[pos] >= '0' && text[pos] <= '9'; ++pos) {
        const int digit = text[pos] - '0';
        if (value < (kMin + digit) / 10) {
            saturated = true;
            break;
        }
        value = value * 10 - digit;
    }
    if (saturated) {
        return negative ? kMin : std::numeric_limits<std::int64_t>::max();
    }
    if (!negative) {
        return value == kMin ? std::numeric_limits<std::int64_t>::max() : -value;
    }
    return value;
}

} // namespace

void forEachImageKey(const DemoArchive& archive, std::string_view manifestPath,
                     const std::function<void(const ImageKeyLine&)>& visit) {
    const std::string bytes = archive.readText(manifestPath);
    std::string_view text = utf8::beforeNul(bytes);
    if (!utf8::isValid(text)) {
        throw std::runtime_error(kDecodeFailed);
    }
    // A byte-order mark at the start is dropped: editors add it unseen, and with it the first
    // line's key would silently not match.
    text = utf8::withoutByteOrderMark(text);

    std::size_t lineStart = 0;
    std::uint32_t number = 0; // for messages only; beyond any archive's line count before it wraps
    while (lineStart <= text.size()) {
        // The empty line between a CR and its LF is no line in an editor.
        const bool betweenCrAndLf = lineStart > 0 && lineStart < text.size() &&
                                    text[lineStart - 1] == '\r' && text[lineStart] == '\n';
        number += betweenCrAndLf ? 0 : 1;
        // Find the end of this line: the next line break or the end of the text.
        std::size_t lineEnd = text.size();
        std::size_t nextStart = text.size() + 1;
        for (std::size_t pos = lineStart; pos < text.size();) {
            std::size_t after = pos;
            if (isLineBreak(utf8::next(text, after))) {
                lineEnd = pos;
                nextStart = after;
                break;
            }
            pos = after;
        }
        const std::string_view line = utf8::trimSpaces(text.substr(lineStart, lineEnd - lineStart));
        lineStart = nextStart;

        const std::size_t equals = line.find('=');
        if (line.empty() || line[0] == '#' || equals == std::string_view::npos) {
            continue;
        }
        const std::string_view key = utf8::trimSpaces(line.substr(0, equals));
        // 'image.path' is ignored: the prefix and suffix overlap and no index was written, and
        // reading it as index 0 would quietly replace a real first image.
        if (key.size() < kKeyPrefix.size() + kKeySuffix.size() || !key.starts_with(kKeyPrefix) ||
            !key.ends_with(kKeySuffix)) {
            continue;
        }
        const std::string_view index = key.substr(
            kKeyPrefix.size(), key.size() - kKeyPrefix.size() - kKeySuffix.size());
        visit({number, key, index, parseIndex(index),
               joinArchivePath(manifestPath, utf8::trimSpaces(line.substr(equals + 1)))});
    }
}

std::vector<std::string> loadImagePaths(const DemoArchive& archive, std::string_view manifestPath) {
    std::map<std::int64_t, std::string> pathsByIndex;
    forEachImageKey(archive, manifestPath, [&](const ImageKeyLine& line) {
        pathsByIndex.insert_or_assign(line.index, line.path);
    });
    std::vector<std::string> paths;
    paths.reserve(pathsByIndex.size());
    for (auto& [index, path] : pathsByIndex) {
        paths.push_back(std::move(path));
    }
    return paths;
}

} // namespace brisvale
