// brisvale-pack: the authoring tool for demo containers.
//
//   brisvale-pack -o demo.dat [--format 1|2] [--compress auto|all|none] DIR
//   brisvale-pack --list demo.dat
//   brisvale-pack --extract demo.dat DIR
//
// Packing is deterministic (sorted paths, fixed gzip header) and replaces the output file only
// once the whole container is written; what it skips it names on stderr. Extracting creates new
// files only and, when it fails, removes what it created. Every failure is one line on stderr
// and exit status 1 (2 for a wrong command line).
//
// Sections: [usage] [messages] [pack] [list] [extract] [main]

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "content/ArchivePath.h"
#include "content/ArchiveWriter.h"
#include "content/DemoArchive.h"

namespace fs = std::filesystem;
using brisvale::ArchiveCompression;
using brisvale::ArchiveFile;
using brisvale::ArchiveWriteOptions;
using brisvale::DemoArchive;

namespace {

// A failure to report as one line; `usage` marks a wrong command line.
struct ToolError : std::runtime_error {
    explicit ToolError(const std::string& message, bool usage = false)
        : std::runtime_error(message), usage(usage) {}
    bool usage;
};

// [usage] ----------------------------------------------------------------------------------

constexpr const char* kUsage =
    "Usage: brisvale-pack -o OUTPUT [--format 1|2] [--compress auto|all|none] DIR\n"
    "  or:  brisvale-pack --list ARCHIVE\n"
    "  or:  brisvale-pack --extract ARCHIVE DIR\n"
    "Packs a show directory into one show file (demo.dat) for the Brisvale player, lists\n"
    "what a show file holds, or unpacks one. The same directory always packs to the same\n"
    "bytes, and the output is replaced only once it has been written whole.\n"
    "\n"
    "Options:\n"
    "  -o, --output OUTPUT     pack every regular file under DIR into OUTPUT, under its\n"
    "                          path relative to DIR. A symbolic link is packed as the\n"
    "                          file it leads to when that lies inside DIR; other links\n"
    "                          and special files are skipped, each named on stderr\n"
    "  --format 1|2            container version: 2 (the default) may hold gzip files,\n"
    "                          1 stores every file as it is\n"
    "  --compress auto|all|none\n"
    "                          auto (the default) gzips a file when that saves at least\n"
    "                          10 %; all gzips every file; none stores every file\n"
    "  --list ARCHIVE          print one line per file: path, stored size, unpacked\n"
    "                          size, stored or gzip; then the total\n"
    "  --extract ARCHIVE DIR   write every file back under DIR as a new file; on a\n"
    "                          failure nothing is left behind\n"
    "  -h, --help              print this help and exit\n"
    "\n"
    "Limits: a show is at most 512 MiB, each file under 4 GiB.\n"
    "\n"
    "Exit status:\n"
    "  0                       done\n"
    "  1                       a failure, named in one line on stderr\n"
    "  2                       a command line it does not understand\n";

// [messages] -------------------------------------------------------------------------------

std::string quoted(const std::string& text) {
    return "'" + text + "'";
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

// `name` safe to print: control characters (C0, DEL, C1) and bytes that are not UTF-8 become
// \xNN, so a name can neither drive the terminal nor forge a line or column of the listing.
// Archive keys never hold a backslash (it is a separator), so in them the escape is unambiguous.
std::string printable(std::string_view name) {
    std::string out;
    for (std::size_t at = 0; at < name.size();) {
        const std::size_t length = utf8Length(name.substr(at));
        const auto lead = static_cast<unsigned char>(name[at]);
        const bool control = (length == 1 && (lead < 0x20 || lead == 0x7F)) ||
                             (length == 2 && lead == 0xC2 &&
                              static_cast<unsigned char>(name[at + 1]) < 0xA0);
        if (length != 0 && !control) {
            out += name.substr(at, length);
            at += length;
            continue;
        }
        for (std::size_t i = 0; i < std::max<std::size_t>(length, 1); ++i) {
            char escaped[5];
            std::snprintf(escaped, sizeof escaped, "\\x%02X",
                          static_cast<unsigned char>(name[at + i]));
            out += escaped;
        }
        at += std::max<std::size_t>(length, 1);
    }
    return out;
}

std::string shown(const fs::path& path) {
    return printable(path.string());
}

// Puts the archive's path (and an entry's) in front of a content error, unless the message
// already ends with it, as the reader's file errors do.
std::string inArchive(const std::string& archivePath, const std::string& message,
                      const std::string& key = {}) {
    const std::string ownEnd = ": " + archivePath;
    const bool named = message.size() >= ownEnd.size() &&
                       message.compare(message.size() - ownEnd.size(), ownEnd.size(), ownEnd) == 0;
    return (named ? "" : archivePath + ": ") + (key.empty() ? "" : key + ": ") + message;
}

std::shared_ptr<DemoArchive> loadArchive(const std::string& archivePath) {
    try {
        return DemoArchive::load(archivePath);
    } catch (const std::runtime_error& e) {
        throw ToolError(inArchive(archivePath, e.what()));
    }
}

// [pack] -----------------------------------------------------------------------------------

// The reader inflates a file in one zlib call, which counts in 32 bits.
constexpr std::uint64_t kMaxPackedFile = std::uint64_t{4} << 30;

// The content of the regular file at `path`; `name` is its archive path, for messages.
std::vector<std::uint8_t> readRegularFile(const fs::path& path, const std::string& name) {
    auto fail = [&](int error) {
        return ToolError("cannot read " + shown(path) + ": " + std::strerror(error));
    };
    // O_NONBLOCK: a FIFO swapped in after the walk looked must not block the open.
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        throw fail(errno);
    }
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
        throw fail(errno);
    }
    if (!S_ISREG(status.st_mode)) {
        throw ToolError("cannot read " + shown(path) + ": not a regular file");
    }
    auto tooLarge = [&] {
        return ToolError("cannot pack " + quoted(printable(name)) +
                         ": files of 4 GiB or more cannot be stored");
    };
    if (static_cast<std::uint64_t>(status.st_size) >= kMaxPackedFile) {
        throw tooLarge();
    }
    std::vector<std::uint8_t> bytes;
    bytes.reserve(static_cast<std::size_t>(status.st_size));
    std::uint8_t chunk[1 << 16];
    while (true) {
        const ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            throw fail(errno);
        }
        if (n == 0) {
            break;
        }
        bytes.insert(bytes.end(), chunk, chunk + n);
        if (bytes.size() >= kMaxPackedFile) { // it grew while being read
            throw tooLarge();
        }
    }
    return bytes;
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

// Why the symbolic link `link` is not packed, or "" when it leads to a regular file inside the
// tree; `source` is then that file, whose content is packed under the link's name.
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

// Every regular file under `root`, sorted by archive path. Symbolic links are packed only when
// they lead to a regular file inside `root` (as that file's content, under the link's name);
// links elsewhere, links to directories, dangling links and anything that is no regular file
// are skipped, each with one line on stderr. `output` itself is skipped too, so a container
// written into the directory it packs is not packed into its successor.
std::vector<ArchiveFile> collectFiles(const fs::path& root, const fs::path& output) {
    std::error_code error;
    if (!fs::is_directory(root, error)) {
        throw ToolError("not a directory: " + shown(root));
    }
    const fs::path canonicalRoot = fs::canonical(root, error);
    std::vector<ArchiveFile> files;
    fs::recursive_directory_iterator walk(root, error);
    for (; !error && walk != fs::recursive_directory_iterator(); walk.increment(error)) {
        const fs::path& path = walk->path();
        const std::string name = path.lexically_relative(root).generic_string();
        std::error_code statusError;
        const fs::file_status status = walk->symlink_status(statusError);
        if (fs::is_directory(status)) {
            continue;
        }
        fs::path source = path;
        std::string skipped;
        if (fs::is_symlink(status)) {
            skipped = linkSkipReason(path, canonicalRoot, source);
        } else if (!fs::is_regular_file(status)) {
            skipped = fileKind(status);
        }
        if (skipped.empty() && fs::equivalent(source, output, statusError)) {
            skipped = "the output file itself";
        }
        if (!skipped.empty()) {
            std::fprintf(stderr, "brisvale-pack: skipped %s: %s\n", quoted(printable(name)).c_str(),
                         skipped.c_str());
            continue;
        }
        // Names are stored as written; one that the reader would read differently (a
        // backslash is a separator inside the archive) would come back as another file.
        if (brisvale::normalizeArchivePath(name) != name) {
            throw ToolError("cannot pack " + quoted(printable(name)) +
                            ": its name would read as a different archive path");
        }
        files.push_back({name, readRegularFile(source, name)});
    }
    if (error) {
        throw ToolError("cannot read directory " + shown(root) + ": " + error.message());
    }
    std::sort(files.begin(), files.end(),
              [](const ArchiveFile& a, const ArchiveFile& b) { return a.path < b.path; });
    return files;
}

int pack(const std::string& output, const std::string& directory,
         const ArchiveWriteOptions& options) {
    const std::vector<ArchiveFile> files = collectFiles(directory, output);
    std::uint64_t contentBytes = 0;
    for (const ArchiveFile& file : files) {
        contentBytes += file.bytes.size();
    }
    brisvale::writeArchiveFile(output, files, options);
    std::error_code error;
    const std::uintmax_t written = fs::file_size(output, error);
    std::printf("Packed %zu files (%llu bytes) into %s: %llu bytes, format %u\n", files.size(),
                static_cast<unsigned long long>(contentBytes), output.c_str(),
                static_cast<unsigned long long>(error ? 0 : written), options.version);
    return 0;
}

// [list] -----------------------------------------------------------------------------------

// A gzip entry whose declared size cannot be right shows "?" and is left out of the total.
int list(const std::string& archivePath) {
    const auto archive = loadArchive(archivePath);
    std::uint64_t stored = 0;
    std::uint64_t unpacked = 0;
    for (const auto& [path, entry] : archive->entries()) {
        const bool gzip = (entry.flags & DemoArchive::kGzipFlag) != 0;
        const std::optional<std::uint64_t> size = DemoArchive::contentSize(entry);
        std::printf("%s\t%llu\t%s\t%s\n", printable(path).c_str(),
                    static_cast<unsigned long long>(entry.storedSize),
                    size ? std::to_string(*size).c_str() : "?", gzip ? "gzip" : "stored");
        stored += entry.storedSize;
        unpacked += size.value_or(0);
    }
    std::printf("total: %zu files\t%llu\t%llu\n", archive->entries().size(),
                static_cast<unsigned long long>(stored), static_cast<unsigned long long>(unpacked));
    return 0;
}

// [extract] --------------------------------------------------------------------------------

// What this run created, removed again (files and then their directories, newest first)
// unless the extraction finished: a failed run leaves the destination as it found it.
class CreatedPaths {
public:
    CreatedPaths() = default;
    CreatedPaths(const CreatedPaths&) = delete;
    CreatedPaths& operator=(const CreatedPaths&) = delete;
    ~CreatedPaths() {
        for (auto it = paths_.rbegin(); it != paths_.rend(); ++it) {
            std::remove(it->c_str()); // a file, or a directory that is empty by now
        }
    }
    void add(const fs::path& path) { paths_.push_back(path); }
    void keep() { paths_.clear(); }

private:
    std::vector<fs::path> paths_;
};

// Creates the directory `path` unless it exists, recording it; says why when it cannot.
void makeDirectory(const fs::path& path, CreatedPaths& created) {
    if (::mkdir(path.c_str(), 0755) == 0) {
        created.add(path);
    } else if (errno != EEXIST) {
        throw ToolError("cannot create " + shown(path) + ": " + std::strerror(errno));
    }
}

// Creates `root` and any of its missing parents.
void makeRoot(const fs::path& root, CreatedPaths& created) {
    fs::path at;
    for (const fs::path& segment : root) {
        at /= segment;
        makeDirectory(at, created);
    }
    std::error_code error;
    if (!fs::is_directory(root, error)) {
        throw ToolError("not a directory: " + shown(root));
    }
}

// Creates each directory of `relative` under `root`, refusing to pass through a symbolic link
// (which could lead outside `root`) or a file.
void makeParents(const fs::path& root, const fs::path& relative, const std::string& key,
                 CreatedPaths& created) {
    fs::path at = root;
    for (const fs::path& segment : relative.parent_path()) {
        at /= segment;
        makeDirectory(at, created);
        struct stat status {};
        if (::lstat(at.c_str(), &status) != 0) {
            throw ToolError("cannot create " + shown(at) + ": " + std::strerror(errno));
        }
        if (S_ISLNK(status.st_mode)) {
            throw ToolError("refusing " + quoted(printable(key)) + ": " + shown(at) +
                            " is a symbolic link and could lead outside " + shown(root));
        }
        if (!S_ISDIR(status.st_mode)) {
            throw ToolError("cannot extract " + quoted(printable(key)) + ": " + shown(at) +
                            " is not a directory");
        }
    }
}

// Streams the entry `key` into the new file `path`. O_EXCL: an existing name (a file, a link,
// a hard link to something outside) is never opened for writing.
void writeExtracted(const DemoArchive& archive, const std::string& key, const fs::path& path,
                    CreatedPaths& created) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) {
        throw ToolError("cannot write " + quoted(printable(key)) + " to " + shown(path) + ": " +
                        std::strerror(errno));
    }
    created.add(path);
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    archive.stream(key, [&](brisvale::ArchiveBytes piece) {
        while (!piece.empty()) {
            const ssize_t n = ::write(fd, piece.data(), piece.size());
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                throw ToolError("cannot write " + shown(path) + ": " + std::strerror(errno));
            }
            piece = piece.subspan(static_cast<std::size_t>(n));
        }
    });
}

int extract(const std::string& archivePath, const std::string& directory) {
    const auto archive = loadArchive(archivePath);
    // Keys are canonical, so no ".." can climb out; an empty key names no file at all, and a
    // NUL byte cannot be part of a file name. Sizes are summed to be checked against the free
    // space. All of it before anything is written.
    std::uint64_t bytes = 0;
    for (const auto& [key, entry] : archive->entries()) {
        if (key.empty()) {
            throw ToolError("refusing an entry with an empty path in " + archivePath);
        }
        if (key.find('\0') != std::string::npos) {
            throw ToolError("refusing an entry whose path holds a NUL byte in " + archivePath);
        }
        const std::optional<std::uint64_t> size = DemoArchive::contentSize(entry);
        if (!size) {
            const std::string claim = "declares " + std::to_string(entry.unpackedSize) +
                                      " bytes, more than it can hold";
            throw ToolError(inArchive(archivePath, claim, printable(key)));
        }
        bytes += *size; // under 4 GiB each, and a 512 MiB directory holds too few to wrap
    }
    const fs::path root(directory);
    CreatedPaths created;
    makeRoot(root, created);
    struct statvfs space {};
    const bool known = ::statvfs(root.c_str(), &space) == 0;
    const std::uint64_t free = std::uint64_t{space.f_bavail} * space.f_frsize;
    if (known && bytes > free) {
        throw ToolError("cannot extract " + archivePath + ": its files take " +
                        std::to_string(bytes) + " bytes, " + directory + " has " +
                        std::to_string(free) + " free");
    }
    for (const auto& [key, entry] : archive->entries()) {
        const fs::path relative(key);
        makeParents(root, relative, key, created);
        try {
            writeExtracted(*archive, key, root / relative, created);
        } catch (const ToolError&) {
            throw;
        } catch (const std::runtime_error& e) { // the reader's own message: say where
            throw ToolError(inArchive(archivePath, e.what(), printable(key)));
        }
    }
    created.keep();
    std::printf("Extracted %zu files (%llu bytes) into %s\n", archive->entries().size(),
                static_cast<unsigned long long>(bytes), directory.c_str());
    return 0;
}

// [main] -----------------------------------------------------------------------------------

std::uint32_t parseFormat(const std::string& text) {
    if (text == "1" || text == "2") {
        return static_cast<std::uint32_t>(text[0] - '0');
    }
    throw ToolError("--format must be 1 or 2, not " + quoted(text), true);
}

ArchiveCompression parseCompression(const std::string& text) {
    if (text == "auto") return ArchiveCompression::Auto;
    if (text == "all") return ArchiveCompression::All;
    if (text == "none") return ArchiveCompression::None;
    throw ToolError("--compress must be auto, all or none, not " + quoted(text), true);
}

int run(const std::vector<std::string>& args) {
    enum class Mode { Pack, List, Extract };
    std::optional<Mode> mode;
    std::string output;
    std::optional<std::uint32_t> format;
    std::optional<ArchiveCompression> compression;
    std::vector<std::string> operands;

    auto setMode = [&](Mode m) {
        if (mode && *mode != m) {
            throw ToolError("choose one of -o, --list and --extract", true);
        }
        mode = m;
    };
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        auto value = [&]() -> const std::string& {
            if (i + 1 >= args.size()) {
                throw ToolError(arg + " needs a value", true);
            }
            return args[++i];
        };
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (arg == "-o" || arg == "--output") {
            setMode(Mode::Pack);
            output = value();
        } else if (arg == "--format") {
            format = parseFormat(value());
        } else if (arg == "--compress") {
            compression = parseCompression(value());
        } else if (arg == "--list") {
            setMode(Mode::List);
        } else if (arg == "--extract") {
            setMode(Mode::Extract);
        } else if (arg == "--") {
            operands.insert(operands.end(), args.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                            args.end());
            break;
        } else if (arg.size() > 1 && arg[0] == '-') {
            throw ToolError("unknown option " + quoted(arg), true);
        } else {
            operands.push_back(arg);
        }
    }

    if (!mode) {
        throw ToolError("nothing to do: give -o OUTPUT DIR, --list ARCHIVE or --extract ARCHIVE DIR",
                        true);
    }
    if (*mode != Mode::Pack && (format || compression)) {
        throw ToolError("--format and --compress apply to packing only", true);
    }
    switch (*mode) {
    case Mode::Pack: {
        if (operands.size() != 1) {
            throw ToolError("packing takes one directory", true);
        }
        ArchiveWriteOptions options;
        options.version = format.value_or(2);
        options.compression = compression.value_or(ArchiveCompression::Auto);
        if (options.version == 1 && options.compression == ArchiveCompression::All) {
            throw ToolError("--compress all needs --format 2: format 1 stores files only", true);
        }
        if (options.version == 1) {
            options.compression = ArchiveCompression::None;
        }
        return pack(output, operands[0], options);
    }
    case Mode::List:
        if (operands.size() != 1) {
            throw ToolError("--list takes one archive", true);
        }
        return list(operands[0]);
    case Mode::Extract:
        if (operands.size() != 2) {
            throw ToolError("--extract takes an archive and a directory", true);
        }
        return extract(operands[0], operands[1]);
    }
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return run(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const ToolError& e) {
        std::fprintf(stderr, "brisvale-pack: %s\n", e.what());
        return e.usage ? 2 : 1;
    } catch (const std::exception& e) {
        // Archive and writer errors carry their own one-line message.
        std::fprintf(stderr, "brisvale-pack: %s\n", e.what());
        return 1;
    }
}
