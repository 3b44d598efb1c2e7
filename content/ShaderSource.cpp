// Expands the include lines of shader source text from the archive: purely textual, line by
// line, with no include-once logic; recursion is refused, and depth, count and size bounded.

#include "content/ShaderSource.h"

#include <algorithm>
#include <stdexcept>

#include "content/ArchivePath.h"
#include "content/Utf8Text.h"

namespace brisvale {
namespace {

constexpr const char* kRecursive = "Recursive Metal include detected";
constexpr const char* kDecodeFailed = "Failed to decode Metal shader source: ";
constexpr const char* kTooDeep = "Metal includes nested more than 64 deep";
constexpr const char* kTooManyIncludes = "More than 4096 Metal includes in one source";
constexpr const char* kTooLarge = "Expanded Metal shader source larger than 16 MiB";
constexpr std::string_view kIncludeOpening = "#include \"";

// Limits that keep a hostile show from expanding includes forever: a file that includes the
// next one twice, 26 files deep, would expand to 2^26 copies of the last.
constexpr std::size_t kMaxIncludeDepth = 64; // files in the chain, the entry file included
constexpr std::size_t kMaxIncludes = 4096;
constexpr std::size_t kMaxExpandedBytes = std::size_t{16} << 20;

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

// Expands `path` into `output`, shared by the whole expansion so that one buffer holds the
// result and its size limit counts every file.
void expandInto(const DemoArchive& archive, std::string_view path,
                std::vector<std::string>& includeStack, std::string& output,
                std::size_t& includesLeft) {
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
    std::string_view text =
        utf8::beforeNul({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    if (!utf8::isValid(text)) {
        throw std::runtime_error(kDecodeFailed + canonical);
    }
    // A byte-order mark at the start is dropped: editors add it unseen, the compiler would
    // reject it, and an include on the first line would not be recognised behind it.
    text = utf8::withoutByteOrderMark(text);

    std::size_t lineStart = 0;
    while (lineStart < text.size()) {
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
            if (includesLeft-- == 0) {
                throw std::runtime_error(kTooManyIncludes);
            }
            expandInto(archive, joinArchivePath(canonical, name), includeStack, output,
                       includesLeft);
        } else {
            output += line;
        }
        output += '\n';
        if (output.size() > kMaxExpandedBytes) {
            throw std::runtime_error(kTooLarge);
        }
        lineStart = lineEnd + endLength;
    }
    includeStack.pop_back();
}

} // namespace

std::string loadMetalSourceWithIncludes(const DemoArchive& archive, std::string_view path,
                                        std::vector<std::string>& includeStack) {
    std::string output;
    std::size_t includesLeft = kMaxIncludes;
    expandInto(archive, path, includeStack, output, includesLeft);
    return output;
}

} // namespace brisvale
