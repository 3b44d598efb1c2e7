// brisvale-pack: the authoring tool for demo containers.
//
//   brisvale-pack -o demo.dat [--format 1|2] [--compress auto|all|none] DIR
//   brisvale-pack --list demo.dat
//   brisvale-pack --extract demo.dat DIR
//
// Packing is deterministic (sorted paths, fixed gzip header) and replaces the output file only
// once the whole container is written. Every failure is one line on stderr and exit status 1
// (2 for a wrong command line).
//
// Sections: [usage] [pack] [list] [extract] [main]

#include <fcntl.h>
#include <sys/stat.h>
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
    "Usage:\n"
    "  brisvale-pack -o OUTPUT [--format 1|2] [--compress auto|all|none] DIR\n"
    "      Packs every regular file under DIR, under its path relative to DIR.\n"
    "      --format 2 (default) may hold gzip files; --format 1 stores files only.\n"
    "      --compress auto (default) gzips a file when that saves at least 10 %;\n"
    "      all gzips every file; none stores every file.\n"
    "  brisvale-pack --list ARCHIVE\n"
    "      One line per file: path, stored size, unpacked size, stored|gzip; then the total.\n"
    "  brisvale-pack --extract ARCHIVE DIR\n"
    "      Writes every file back under DIR.\n"
    "  brisvale-pack --help\n";

std::string quoted(const std::string& text) {
    return "'" + text + "'";
}

// [pack] -----------------------------------------------------------------------------------

std::vector<std::uint8_t> readWholeFile(const fs::path& path) {
    auto fail = [&](int error) {
        return ToolError("cannot read " + path.string() + ": " + std::strerror(error));
    };
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        throw fail(errno);
    }
    std::vector<std::uint8_t> bytes;
    std::uint8_t chunk[1 << 16];
    while (true) {
        const ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            const int error = errno;
            ::close(fd);
            throw fail(error);
        }
        if (n == 0) {
            break;
        }
        bytes.insert(bytes.end(), chunk, chunk + n);
    }
    ::close(fd);
    return bytes;
}

// Every regular file under `root`, sorted by archive path; `output` itself is left out, so a
// container written into the directory it packs is not packed into its successor.
std::vector<ArchiveFile> collectFiles(const fs::path& root, const fs::path& output) {
    std::error_code error;
    if (!fs::is_directory(root, error)) {
        throw ToolError("not a directory: " + root.string());
    }
    std::vector<ArchiveFile> files;
    fs::recursive_directory_iterator walk(root, error);
    for (; !error && walk != fs::recursive_directory_iterator(); walk.increment(error)) {
        const fs::directory_entry& entry = *walk;
        std::error_code statusError;
        if (!entry.is_regular_file(statusError)) {
            continue;
        }
        if (fs::equivalent(entry.path(), output, statusError)) {
            continue;
        }
        const std::string path = entry.path().lexically_relative(root).generic_string();
        // Names are stored as written; one that the reader would read differently (a
        // backslash is a separator inside the archive) would come back as another file.
        if (brisvale::normalizeArchivePath(path) != path) {
            throw ToolError("cannot pack " + quoted(path) +
                            ": its name would read as a different archive path");
        }
        files.push_back({path, readWholeFile(entry.path())});
    }
    if (error) {
        throw ToolError("cannot read directory " + root.string() + ": " + error.message());
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

int list(const std::string& archivePath) {
    const auto archive = DemoArchive::load(archivePath);
    std::uint64_t stored = 0;
    std::uint64_t unpacked = 0;
    for (const auto& [path, entry] : archive->entries()) {
        const bool gzip = (entry.flags & DemoArchive::kGzipFlag) != 0;
        std::printf("%s\t%llu\t%llu\t%s\n", path.c_str(),
                    static_cast<unsigned long long>(entry.storedSize),
                    static_cast<unsigned long long>(entry.unpackedSize), gzip ? "gzip" : "stored");
        stored += entry.storedSize;
        unpacked += entry.unpackedSize;
    }
    std::printf("total: %zu files\t%llu\t%llu\n", archive->entries().size(),
                static_cast<unsigned long long>(stored), static_cast<unsigned long long>(unpacked));
    return 0;
}

// [extract] --------------------------------------------------------------------------------

// Creates each directory of `relative` under `root`, refusing to pass through a symbolic link
// (which could lead outside `root`) or a file.
void makeParents(const fs::path& root, const fs::path& relative, const std::string& key) {
    fs::path at = root;
    for (const fs::path& segment : relative.parent_path()) {
        at /= segment;
        std::error_code error;
        const fs::file_status status = fs::symlink_status(at, error);
        if (fs::is_symlink(status)) {
            throw ToolError("refusing " + quoted(key) + ": " + at.string() +
                            " is a symbolic link and could lead outside " + root.string());
        }
        if (!fs::exists(status) && !fs::create_directory(at, error) && error) {
            throw ToolError("cannot create " + at.string() + ": " + error.message());
        }
        if (!fs::is_directory(at, error)) {
            throw ToolError("cannot extract " + quoted(key) + ": " + at.string() +
                            " is not a directory");
        }
    }
}

// Writes `content` to `path`, never through a symbolic link at the last step either.
void writeExtracted(const fs::path& path, brisvale::ArchiveBytes content, const std::string& key) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) {
        throw ToolError("cannot write " + quoted(key) + " to " + path.string() + ": " +
                        std::strerror(errno));
    }
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t n = ::write(fd, content.data() + done, content.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            const int saved = errno;
            ::close(fd);
            throw ToolError("cannot write " + path.string() + ": " + std::strerror(saved));
        }
        done += static_cast<std::size_t>(n);
    }
    if (::close(fd) != 0) {
        throw ToolError("cannot write " + path.string() + ": " + std::strerror(errno));
    }
}

int extract(const std::string& archivePath, const std::string& directory) {
    const auto archive = DemoArchive::load(archivePath);
    // Keys are canonical, so no ".." can climb out; an empty key names no file at all, and a
    // NUL byte cannot be part of a file name. Checked for all entries before writing any.
    for (const auto& [key, entry] : archive->entries()) {
        if (key.empty()) {
            throw ToolError("refusing an entry with an empty path in " + archivePath);
        }
        if (key.find('\0') != std::string::npos) {
            throw ToolError("refusing an entry whose path holds a NUL byte in " + archivePath);
        }
    }
    const fs::path root(directory);
    std::error_code error;
    fs::create_directories(root, error);
    if (!fs::is_directory(root, error)) {
        throw ToolError("not a directory: " + directory);
    }
    std::uint64_t bytes = 0;
    for (const auto& [key, entry] : archive->entries()) {
        const fs::path relative(key);
        makeParents(root, relative, key);
        const brisvale::ArchiveBytes content = archive->open(key);
        writeExtracted(root / relative, content, key);
        bytes += content.size();
    }
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
