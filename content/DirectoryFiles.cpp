// The files of a directory as a show's files: the walk that decides what counts, and reading
// one file with its size bounded. Shared by brisvale-pack and DemoArchive::loadDirectory, so a
// show directory holds exactly what its packed form would.

#include "content/DirectoryFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "content/ArchivePath.h"
#include "content/FileDescriptor.h"

namespace fs = std::filesystem;

namespace brisvale {
namespace {

std::string shown(const fs::path& path) {
    return printableArchivePath(path.string());
}

std::string quoted(const std::string& name) {
    return "'" + printableArchivePath(name) + "'";
}

const char* fileKind(const fs::file_status& status) {
    switch (status.type()) {
    case fs::file_type::fifo: return "a FIFO";
    case fs::file_type::socket: return "a socket";
    case fs::file_type::block: return "a block device";
    case fs::file_type::character: return "a character device";
    default: return "not a regular file";
    }
}

// Why the symbolic link `link` is left out, or "" when it leads to a regular file inside the
// tree; `source` is then that file.
std::string linkSkipReason(const fs::path& link, const fs::path& canonicalRoot, fs::path& source) {
    std::error_code error;
    const fs::path target = fs::canonical(link, error);
    if (error) {
        return "symbolic link that leads nowhere (" + error.message() + ")";
    }
    const fs::path inside = target.lexically_relative(canonicalRoot);
    if (inside.empty() || *inside.begin() == "..") {
        return "symbolic link to " + shown(target) + ", outside the directory";
    }
    const fs::file_status status = fs::status(target, error);
    if (fs::is_directory(status)) {
        return "symbolic link to a directory, not followed";
    }
    if (!fs::is_regular_file(status)) {
        return std::string("symbolic link to ") + fileKind(status);
    }
    source = target;
    return "";
}

} // namespace

DirectoryListing listDirectoryFiles(const fs::path& root, const fs::path& excluded) {
    std::error_code error;
    if (!fs::is_directory(root, error)) {
        throw std::runtime_error("not a directory: " + shown(root));
    }
    const fs::path canonicalRoot = fs::canonical(root, error);
    DirectoryListing listing;
    fs::recursive_directory_iterator walk(root, error);
    for (; !error && walk != fs::recursive_directory_iterator(); walk.increment(error)) {
        const fs::path& path = walk->path();
        const std::string name = path.lexically_relative(root).generic_string();
        std::error_code statusError;
        const fs::file_status status = walk->symlink_status(statusError);
        if (fs::is_directory(status)) {
            continue;
        }
        // Counted before anything is kept, skipped entries too.
        if (listing.files.size() + listing.skipped.size() == kMaxDirectoryFiles) {
            throw std::runtime_error("more than " + std::to_string(kMaxDirectoryFiles) +
                                     " files under " + shown(root));
        }
        fs::path source = path;
        std::string skipped;
        if (fs::is_symlink(status)) {
            skipped = linkSkipReason(path, canonicalRoot, source);
        } else if (!fs::is_regular_file(status)) {
            skipped = fileKind(status);
        }
        if (skipped.empty() && !excluded.empty() && fs::equivalent(source, excluded, statusError)) {
            skipped = "the output file itself";
        }
        if (!skipped.empty()) {
            listing.skipped.push_back(quoted(name) + ": " + skipped);
            continue;
        }
        // Names are used as written; one that the archive would read differently would come
        // back as another file.
        if (normalizeArchivePath(name) != name) {
            throw std::runtime_error("cannot take " + quoted(name) +
                                     ": its name would read as a different archive path");
        }
        const std::uintmax_t size = fs::file_size(source, statusError);
        listing.files.push_back({name, source, statusError ? 0 : static_cast<std::uint64_t>(size)});
    }
    if (error) {
        throw std::runtime_error("cannot read directory " + shown(root) + ": " + error.message());
    }
    std::sort(listing.files.begin(), listing.files.end(),
              [](const DirectoryFile& a, const DirectoryFile& b) { return a.name < b.name; });
    return listing;
}

bool appendDirectoryFile(const DirectoryFile& file, std::uint64_t limit,
                         std::vector<std::uint8_t>& out) {
    const std::size_t start = out.size();
    auto fail = [&](const std::string& reason) {
        out.resize(start);
        return std::runtime_error("cannot read " + shown(file.source) + ": " + reason);
    };
    // O_NONBLOCK: a FIFO swapped in after the walk looked must not block the open.
    const FileDescriptor fd{
        ::open(file.source.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC)};
    struct stat status {};
    if (fd.get() < 0 || ::fstat(fd.get(), &status) != 0) {
        throw fail(std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        throw fail("not a regular file");
    }
    const auto size = static_cast<std::uint64_t>(status.st_size);
    if (size > limit) {
        return false;
    }
    out.reserve(start + static_cast<std::size_t>(size));
    std::uint8_t chunk[1 << 16];
    while (true) {
        const ssize_t n = ::read(fd.get(), chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            throw fail(std::strerror(errno));
        }
        if (n == 0) {
            break;
        }
        // A file that grew past the limit while being read.
        if (static_cast<std::uint64_t>(n) > limit - (out.size() - start)) {
            out.resize(start);
            return false;
        }
        out.insert(out.end(), chunk, chunk + n);
    }
    // An editor that is still writing the file: what was read is no version of it.
    if (out.size() - start != size) {
        throw fail("it changed while being read");
    }
    return true;
}

} // namespace brisvale
