// Expands the include lines of shader source text from the archive: purely textual, line by
// line, with no include-once logic; only recursion is refused.

#include "content/ShaderSource.h"

#include <algorithm>
#include <stdexcept>

#include "content/ArchivePath.h"
#include "content/Utf8Text.h"

namespace brisvale {
namespace {

constexpr const char* kRecursive = "Recursive Metal include detected";
constexpr const char* kDecodeFailed = "Failed to decode Metal shader source: ";
constexpr std::string_view kIncludeOpening = "#include \"";

// The line end starting at `pos`, if one does: its length in bytes, else 0.
std::size_t lineEndLength(std::string_view text, std::size_t pos) {
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

} // namespace

std::string loadMetalSourceWithIncludes(const DemoArchive& archive, std::string_view path,
                                        std::vector<std::string>& includeStack) {
    const std::string canonical = normalizeArchivePath(path);
    if (std::find(includeStack.begin(), includeStack.end(), canonical) != includeStack.end()) {
        throw std::runtime_error(kRecursive);
    }
    const std::string bytes = archive.readText(canonical);
    std::string_view text = utf8::beforeNul(bytes);
    if (!utf8::isValid(text)) {
        throw std::runtime_error(kDecodeFailed + canonical);
    }
    // A byte-order mark at the start is dropped: editors add it unseen, the compiler would
    // reject it, and an include on the first line would not be recognised behind it.
    text = utf8::withoutByteOrderMark(text);

    includeStack.push_back(canonical);
    std::string output;
    output.reserve(text.size());
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
            output += loadMetalSourceWithIncludes(archive, joinArchivePath(canonical, name),
                                                  includeStack);
        } else {
            output += line;
        }
        output += '\n';
        lineStart = lineEnd + endLength;
    }
    includeStack.pop_back();
    return output;
}

} // namespace brisvale
