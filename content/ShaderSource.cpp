// Expands the include lines of shader source text from the archive: purely textual, line by
// line, with no include-once logic; recursion is refused, and depth, count and size bounded.
// The same expansion can note where each line came from, so that compiler messages about the
// expanded text can name the author's file and line.
//
// [SECTION] Messages
// [SECTION] Limits
// [SECTION] Lines
// [SECTION] Expansion
// [SECTION] Line map

#include "content/ShaderSource.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>
#include <unordered_set>

#include "content/ArchivePath.h"
#include "content/Utf8Text.h"

namespace brisvale {
namespace {

// ---------------------------------------------------------------------------------------------
// [SECTION] Messages
// ---------------------------------------------------------------------------------------------

constexpr const char* kRecursive = "Recursive Metal include detected";
constexpr const char* kDecodeFailed = "Failed to decode Metal shader source: ";
constexpr const char* kTooDeep = "Metal includes nested more than 64 deep";
constexpr const char* kTooManyIncludes = "More than 4096 Metal includes in one source";
constexpr const char* kTooLarge = "Expanded Metal shader source larger than 16 MiB";
constexpr const char* kTooManyLines = "Expanded Metal shader source longer than 1048576 lines";
constexpr std::string_view kIncludeOpening = "#include \"";

// ---------------------------------------------------------------------------------------------
// [SECTION] Limits
// ---------------------------------------------------------------------------------------------

// Limits that keep a hostile show from expanding includes forever: a file that includes the
// next one twice, 26 files deep, would expand to 2^26 copies of the last.
constexpr std::size_t kMaxIncludeDepth = 64; // files in the chain, the entry file included
constexpr std::size_t kMaxIncludes = 4096;
constexpr std::size_t kMaxExpandedBytes = std::size_t{16} << 20;
// A line map entry is some forty bytes against a line's one at least: 16 MiB of empty lines
// would map to 640 MiB. Real sources average tens of bytes a line, so they meet the size limit
// long before this one.
constexpr std::size_t kMaxMappedLines = std::size_t{1} << 20;

// ---------------------------------------------------------------------------------------------
// [SECTION] Lines
// ---------------------------------------------------------------------------------------------

// The line end starting at `pos`, if one does: its length in bytes, else 0.
std::size_t lineEndLength(std::string_view text, std::size_t pos) {
    const char first = text[pos];
    if (first != '\n' && first != '\r' && first != '\xC2' && first != '\xE2') {
        return 0; // the common case, cheap: no line end starts with any other byte
    }
    const std::string_view rest = text.substr(pos);
    if (rest.starts_with("\r\n")) {
        return 2;
    }
    if (rest.starts_with('\n') || rest.starts_with('\r')) {
        return 1;
    }
    if (rest.starts_with("\xC2\x85")) { // U+0085
        return 2;
    }
    if (rest.starts_with("\xE2\x80\xA8") || rest.starts_with("\xE2\x80\xA9")) { // U+2028, U+2029
        return 3;
    }
    return 0;
}

// The name of an include line, or false when `line` is an ordinary line. The line that is the
// opening alone ('#include "', its one quote both opening and closing) is an ordinary line: it
// names nothing, so it passes through and the shader compiler reports it in its own words.
bool includeName(std::string_view line, std::string_view& name) {
    const std::string_view trimmed = utf8::trimSpaces(line);
    if (trimmed.size() <= kIncludeOpening.size() || !trimmed.starts_with(kIncludeOpening) ||
        !trimmed.ends_with('"')) {
        return false;
    }
    name = trimmed.substr(kIncludeOpening.size(), trimmed.size() - kIncludeOpening.size() - 1);
    return true;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Expansion
// ---------------------------------------------------------------------------------------------

// One whole expansion: a single output buffer, so that its size limit counts every file, and
// the line map when one is wanted.
struct Expansion {
    std::string output;
    std::size_t includesLeft = kMaxIncludes;
    ExpandedShaderSource* map = nullptr; // origins and files are kept only when set
    std::unordered_set<std::string> filesSeen;
};

void noteFile(Expansion& expansion, const std::string& canonical) {
    if (expansion.map != nullptr && expansion.filesSeen.insert(canonical).second) {
        expansion.map->files.push_back(canonical);
    }
}

void noteLine(Expansion& expansion, const std::string& canonical, std::uint32_t line) {
    if (expansion.map == nullptr) {
        return;
    }
    if (expansion.map->origins.size() == kMaxMappedLines) {
        throw std::runtime_error(kTooManyLines);
    }
    expansion.map->origins.push_back({canonical, line});
}

void expandInto(const DemoArchive& archive, std::string_view path,
                std::vector<std::string>& includeStack, Expansion& expansion) {
    const std::string canonical = normalizeArchivePath(path);
    const bool recursive =
        std::find(includeStack.begin(), includeStack.end(), canonical) != includeStack.end();
    // Pushed first, so that on any failure the stack ends with the file that failed.
    includeStack.push_back(canonical);
    if (recursive) {
        throw std::runtime_error(kRecursive);
    }
    if (includeStack.size() > kMaxIncludeDepth) {
        throw std::runtime_error(kTooDeep);
    }
    const ArchiveBytes bytes = archive.open(canonical);
    noteFile(expansion, canonical);
    std::string_view text =
        utf8::beforeNul({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    if (!utf8::isValid(text)) {
        throw std::runtime_error(kDecodeFailed + canonical);
    }
    // A byte-order mark at the start is dropped: editors add it unseen, the compiler would
    // reject it, and an include on the first line would not be recognised behind it.
    text = utf8::withoutByteOrderMark(text);

    std::string& output = expansion.output;
    std::size_t lineStart = 0;
    std::uint32_t lineNumber = 0; // at most 16 MiB of lines: no wrap
    while (lineStart < text.size()) {
        ++lineNumber;
        std::size_t lineEnd = lineStart;
        std::size_t endLength = 0;
        // Line ends are ASCII or start with a lead byte, so a byte-wise scan cannot match inside
        // another character.
        while (lineEnd < text.size() && (endLength = lineEndLength(text, lineEnd)) == 0) {
            ++lineEnd;
        }
        const std::string_view line = text.substr(lineStart, lineEnd - lineStart);
        std::string_view name;
        if (includeName(line, name)) {
            if (expansion.includesLeft-- == 0) {
                throw std::runtime_error(kTooManyIncludes);
            }
            expandInto(archive, joinArchivePath(canonical, name), includeStack, expansion);
        } else {
            output += line;
        }
        // The line feed ends this line, or follows the included text as a line of its own.
        output += '\n';
        noteLine(expansion, canonical, lineNumber);
        if (output.size() > kMaxExpandedBytes) {
            throw std::runtime_error(kTooLarge);
        }
        lineStart = lineEnd + endLength;
    }
    includeStack.pop_back();
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Line map
// ---------------------------------------------------------------------------------------------

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// The location "0:<line>:" at `at` in `message`: its length and line, or 0 when none starts
// there. A digit or letter just before it makes it part of something else ("10:4:", "v0:1:").
std::size_t locationAt(std::string_view message, std::size_t at, std::uint64_t& line) {
    if (at > 0 && std::isalnum(static_cast<unsigned char>(message[at - 1]))) {
        return 0;
    }
    if (!message.substr(at).starts_with("0:")) {
        return 0;
    }
    std::size_t end = at + 2;
    line = 0;
    while (end < message.size() && isDigit(message[end]) && end - at < 12) {
        line = line * 10 + static_cast<std::uint64_t>(message[end] - '0');
        ++end;
    }
    if (end == at + 2 || end >= message.size() || message[end] != ':') {
        return 0;
    }
    return end + 1 - at;
}

} // namespace

std::string loadMetalSourceWithIncludes(const DemoArchive& archive, std::string_view path,
                                        std::vector<std::string>& includeStack) {
    Expansion expansion;
    expandInto(archive, path, includeStack, expansion);
    return std::move(expansion.output);
}

ExpandedShaderSource expandShaderSource(const DemoArchive& archive, std::string_view path) {
    ExpandedShaderSource source;
    Expansion expansion;
    expansion.map = &source;
    std::vector<std::string> includeStack;
    expandInto(archive, path, includeStack, expansion);
    source.text = std::move(expansion.output);
    return source;
}

std::string mapShaderMessage(std::string_view message, const ExpandedShaderSource& source) {
    std::string out;
    std::size_t copied = 0;
    for (std::size_t at = 0; at < message.size(); ++at) {
        std::uint64_t line = 0;
        const std::size_t length = locationAt(message, at, line);
        if (length == 0 || line == 0 || source.origins.empty()) {
            continue;
        }
        const SourceOrigin& origin =
            source.origins[std::min<std::uint64_t>(line, source.origins.size()) - 1];
        out.append(message.substr(copied, at - copied));
        out += origin.file + ":" + std::to_string(origin.line) + ":";
        copied = at + length;
        at = copied - 1;
    }
    out.append(message.substr(copied));
    return out;
}

} // namespace brisvale
