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

// `path` safe to print on one line: control characters (C0, DEL, C1) and bytes that are not
// UTF-8 become \xNN, so a name can neither drive a terminal nor forge a line or a column of a
// listing. Canonical paths never hold a backslash (it is a separator), so the escape is
// unambiguous in them.
std::string printableArchivePath(std::string_view path);

} // namespace brisvale
