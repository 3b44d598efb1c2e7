#include "content/ArchivePath.h"

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

} // namespace brisvale
