#pragma once

#include <string>
#include <string_view>

namespace brisvale {

// The canonical form of a path inside the archive: segments joined by single forward slashes,
// no leading or trailing slash, no empty, "." or ".." segment. Backslashes count as slashes and
// ".." never climbs above the root. The empty string is the root. Works on bytes; never fails.
std::string normalizeArchivePath(std::string_view path);

// Resolves `relative`, written inside the archive file `base`, against base's directory.
// A reference that names nothing resolves to `base` itself. Never fails.
std::string joinArchivePath(std::string_view base, std::string_view relative);

} // namespace brisvale
