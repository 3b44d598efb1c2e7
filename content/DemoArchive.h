#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace brisvale {

struct ArchiveFile;

// A read-only view of one file's bytes inside a loaded archive (start pointer and length).
// Valid for as long as the archive that handed it out lives.
using ArchiveBytes = std::span<const std::uint8_t>;

// The content container `demo.dat`, held whole in memory. Built by `load` (or, for authors, from
// a directory or from files in memory: the same archive of stored files that packing them would
// give), shared by its users as std::shared_ptr<const DemoArchive>, read-only afterwards except
// for the cache of inflated files. No lock: calls on one archive must not overlap in time.
class DemoArchive {
public:
    // One directory record after loading; all fields zero when default-constructed.
    struct Entry {
        std::uint64_t offset = 0;       // absolute offset of the stored bytes in the container
        std::uint64_t storedSize = 0;   // bytes as stored
        std::uint64_t unpackedSize = 0; // content size after inflation (version 1: storedSize)
        std::uint32_t flags = 0;        // bit 0: the stored bytes are a gzip stream
    };

    // Flag bit 0 of a record: the stored bytes are a gzip stream.
    static constexpr std::uint32_t kGzipFlag = 1u;
    // The largest container `load` accepts: the whole file is held in memory, and a show's
    // music, images and shaders come nowhere near it.
    static constexpr std::uint64_t kMaxFileSize = std::uint64_t{512} << 20;

    // An empty archive; `load` is the only way to a populated one.
    DemoArchive() = default;
    // Views point into this object, so it never moves or copies.
    DemoArchive(const DemoArchive&) = delete;
    DemoArchive& operator=(const DemoArchive&) = delete;

    // Reads the container at `filePath` with one read and checks its header and directory.
    // Only a regular file of at most kMaxFileSize bytes is read. Compressed data is not
    // examined until a file is opened.
    static std::shared_ptr<DemoArchive> load(const std::string& filePath);

    // The files under `directory`, read now, as the archive brisvale-pack would make of it:
    // the same files (listDirectoryFiles' rules: nothing outside the tree, regular files only)
    // under the same names, served as stored entries. Refused like an archive over
    // kMaxFileSize ("Show directory larger than 512 MiB: " + directory) when the files and
    // their directory records would not fit in one. Throws std::runtime_error with one line.
    static std::shared_ptr<DemoArchive> loadDirectory(const std::string& directory);

    // An archive of `files` as stored entries, as writing them into a container and loading
    // it would give (names normalised, a later file winning over an earlier one of the same
    // key). Never fails.
    static std::shared_ptr<DemoArchive> fromFiles(const std::vector<ArchiveFile>& files);

    // Whether a file with the normalised form of `path` exists. Never inflates, never fails.
    bool contains(std::string_view path) const;
    // The file's content: a view into the container for a stored file; for a gzip file, the
    // buffer it was inflated into on its first open (later opens return the same buffer).
    ArchiveBytes open(std::string_view path) const;
    // The content of open(path) as a new string, byte for byte (NULs included; no decoding).
    std::string readText(std::string_view path) const;
    // The content of open(path) as a new byte vector.
    std::vector<std::uint8_t> readCopy(std::string_view path) const;
    // Hands the file's content to `sink` piece by piece and keeps none of it: a stored file as
    // one view, a gzip file inflated a piece at a time, with the checks and messages of `open`.
    // For tools that copy files out; the pieces are valid only during the call to `sink`.
    void stream(std::string_view path, const std::function<void(ArchiveBytes)>& sink) const;

    // The size `entry`'s content will have: the stored size, or for a gzip file its declared
    // size unless inflating would refuse it outright (4 GiB or more, or beyond what deflate can
    // expand the stored bytes to). The directory checks at load cover stored sizes only.
    static std::optional<std::uint64_t> contentSize(const Entry& entry);

    // Every file, by normalised path in byte order (for listing and unpacking tools).
    const std::map<std::string, Entry, std::less<>>& entries() const { return entries_; }

private:
    std::vector<std::uint8_t> bytes_;                   // the whole container file
    std::map<std::string, Entry, std::less<>> entries_; // normalised path -> record
    // Normalised path -> inflated content of a gzip file, filled by the const `open`.
    // Callers hold views into these buffers for the archive's life, so each must stay at a
    // fixed address: std::map never moves its nodes when others are inserted, and a buffer is
    // never modified or erased once inserted, so its heap storage never moves either.
    mutable std::map<std::string, std::vector<std::uint8_t>, std::less<>> inflatedCache_;
};

} // namespace brisvale
