// The demo archive reader: loading the container (header, directory), lookups, and inflating
// gzip entries into the cache on first open.
//
// [SECTION] Messages
// [SECTION] Reading
// [SECTION] Inflation
// [SECTION] Loading
// [SECTION] Other sources
// [SECTION] Lookups

#include "content/DemoArchive.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <new>
#include <stdexcept>

#include "content/ArchivePath.h"
#include "content/ArchiveWriter.h"
#include "content/DirectoryFiles.h"
#include "content/FileDescriptor.h"

namespace brisvale {
namespace {

// ---------------------------------------------------------------------------------------------
// [SECTION] Messages
// ---------------------------------------------------------------------------------------------

constexpr const char* kOpenFailed = "Failed to open demo archive: ";
constexpr const char* kSizeFailed = "Failed to read demo archive size: ";
constexpr const char* kReadFailed = "Failed to read demo archive: ";
constexpr const char* kTooLarge = "Demo archive larger than 512 MiB: ";
constexpr const char* kDirectoryTooLarge = "Show directory larger than 512 MiB: ";
constexpr const char* kInvalid = "Invalid demo archive: ";
constexpr const char* kUnsupportedVersion = "Unsupported demo archive version";
constexpr const char* kCorrupt = "Corrupt demo archive";
constexpr const char* kCorruptDirectory = "Corrupt demo archive directory";
constexpr const char* kMissingFile = "Missing file in demo archive: ";
constexpr const char* kInflateInitFailed = "Failed to initialize demo archive decompressor";
constexpr const char* kInflateFailed = "Failed to decompress demo archive entry";

constexpr std::size_t kHeaderSize = 12;
// A version 2 directory record without its name: what each file of a directory would add to
// the container besides its content.
constexpr std::size_t kRecordSize = 32;
constexpr std::uint8_t kMagic[4] = {'B', 'D', 'A', 'T'};

// ---------------------------------------------------------------------------------------------
// [SECTION] Reading
// ---------------------------------------------------------------------------------------------

// The cursor always lies within `bytes`, so `bytes.size() - cursor` is the remaining size and
// no check below can wrap around.

std::uint64_t readLittleEndian(std::span<const std::uint8_t> bytes, std::size_t& cursor,
                               std::size_t width) {
    if (bytes.size() - cursor < width) {
        throw std::runtime_error(kCorrupt);
    }
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i) {
        value |= std::uint64_t{bytes[cursor + i]} << (8 * i);
    }
    cursor += width;
    return value;
}

std::uint32_t readU32(std::span<const std::uint8_t> bytes, std::size_t& cursor) {
    return static_cast<std::uint32_t>(readLittleEndian(bytes, cursor, 4));
}

std::uint64_t readU64(std::span<const std::uint8_t> bytes, std::size_t& cursor) {
    return readLittleEndian(bytes, cursor, 8);
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Inflation
// ---------------------------------------------------------------------------------------------

// Deflate cannot expand data by more than 1032:1 (a 258-byte match per two bits), and a gzip
// stream adds at least 18 bytes of wrapper. An entry that claims more than that for its stored
// size cannot be right, so it fails here instead of reserving an absurd buffer: a demo.dat is
// untrusted input and must never bring the process down on a failed allocation.
constexpr std::uint64_t kMaxDeflateRatio = 1032;
constexpr std::uint64_t kInflateSlack = 4096;

// Files of 4 GiB or more, stored or unpacked, are refused with the decompression error: zlib
// counts in 32 bits and the content is inflated in one call.
bool inflatable(std::uint64_t sourceSize, std::uint64_t expectedSize) {
    constexpr std::uint64_t kMaxCount = std::numeric_limits<uInt>::max();
    return sourceSize <= kMaxCount && expectedSize <= kMaxCount &&
           expectedSize <= sourceSize * kMaxDeflateRatio + kInflateSlack;
}

// A gzip-only inflater (window bits 15 + 16) over one stored range, ended on every way out.
class GzipStream {
public:
    GzipStream(const std::uint8_t* source, std::uint64_t sourceSize) {
        stream_.next_in = const_cast<Bytef*>(source); // zlib is not const-correct; never written
        stream_.avail_in = static_cast<uInt>(sourceSize);
        if (inflateInit2(&stream_, 15 + 16) != Z_OK) {
            throw std::runtime_error(kInflateInitFailed);
        }
    }
    GzipStream(const GzipStream&) = delete;
    GzipStream& operator=(const GzipStream&) = delete;
    ~GzipStream() { inflateEnd(&stream_); }

    // Inflates into `output` (at most 4 GiB - 1 bytes); returns inflate's result.
    int inflateInto(std::uint8_t* output, std::size_t size, int flush) {
        stream_.next_out = output;
        stream_.avail_out = static_cast<uInt>(size);
        return inflate(&stream_, flush);
    }
    std::uint64_t totalOut() const { return stream_.total_out; }

private:
    z_stream stream_{};
};

// An `unpackedSize` of 0 opens as an empty file when its stream is a valid gzip stream of empty
// content, like any other size that matches; inflate gets a one-byte scratch output so that it
// never sees a null pointer.
std::vector<std::uint8_t> inflateGzip(const std::uint8_t* source, std::uint64_t sourceSize,
                                      std::uint64_t expectedSize) {
    if (!inflatable(sourceSize, expectedSize)) {
        throw std::runtime_error(kInflateFailed);
    }
    std::vector<std::uint8_t> output;
    try {
        output.resize(static_cast<std::size_t>(expectedSize));
    } catch (const std::bad_alloc&) {
        throw std::runtime_error(kInflateFailed);
    }
    std::uint8_t scratch = 0;
    GzipStream stream(source, sourceSize);
    const int result = stream.inflateInto(output.empty() ? &scratch : output.data(),
                                          output.size(), Z_FINISH);
    if (result != Z_STREAM_END || stream.totalOut() != expectedSize) {
        throw std::runtime_error(kInflateFailed);
    }
    return output;
}

// The same stream inflated a piece at a time. Each piece gets room for one byte more than is
// still expected, so content longer than `expectedSize` shows up instead of being cut off.
void inflateGzipInPieces(const std::uint8_t* source, std::uint64_t sourceSize,
                         std::uint64_t expectedSize,
                         const std::function<void(ArchiveBytes)>& sink) {
    if (!inflatable(sourceSize, expectedSize)) {
        throw std::runtime_error(kInflateFailed);
    }
    constexpr std::uint64_t kPiece = 256 * 1024;
    std::vector<std::uint8_t> piece(kPiece);
    GzipStream stream(source, sourceSize);
    int result = Z_OK;
    while (result == Z_OK) {
        const std::uint64_t room = std::min(kPiece, expectedSize - stream.totalOut() + 1);
        const std::uint64_t before = stream.totalOut();
        result = stream.inflateInto(piece.data(), static_cast<std::size_t>(room), Z_NO_FLUSH);
        if (stream.totalOut() > expectedSize) {
            break;
        }
        if (stream.totalOut() > before) {
            sink(ArchiveBytes(piece.data(), static_cast<std::size_t>(stream.totalOut() - before)));
        }
    }
    if (result != Z_STREAM_END || stream.totalOut() != expectedSize) {
        throw std::runtime_error(kInflateFailed);
    }
}

// Reads the whole descriptor into `bytes`, which has the file's size; false on a read error
// or a file that shrank meanwhile.
bool readAll(int fd, std::vector<std::uint8_t>& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::read(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// [SECTION] Loading
// ---------------------------------------------------------------------------------------------

std::shared_ptr<DemoArchive> DemoArchive::load(const std::string& filePath) {
    // O_NONBLOCK keeps a FIFO from waiting for a writer; anything but a regular file (a FIFO,
    // a device, a directory) is refused before a byte is read.
    const FileDescriptor file{::open(filePath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)};
    struct stat status {};
    if (file.get() < 0 || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        throw std::runtime_error(kOpenFailed + filePath);
    }
    if (status.st_size < 0) {
        throw std::runtime_error(kSizeFailed + filePath);
    }
    const std::uint64_t size = static_cast<std::uint64_t>(status.st_size);
    if (size > kMaxFileSize) {
        throw std::runtime_error(kTooLarge + filePath);
    }

    auto archive = std::make_shared<DemoArchive>();
    try {
        archive->bytes_.resize(static_cast<std::size_t>(size));
    } catch (const std::bad_alloc&) {
        throw std::runtime_error(kReadFailed + filePath);
    }
    if (!readAll(file.get(), archive->bytes_)) {
        throw std::runtime_error(kReadFailed + filePath);
    }

    const std::span<const std::uint8_t> bytes = archive->bytes_;
    if (bytes.size() < kHeaderSize || !std::equal(kMagic, kMagic + 4, bytes.begin())) {
        throw std::runtime_error(kInvalid + filePath);
    }
    std::size_t cursor = 4;
    const std::uint32_t version = readU32(bytes, cursor);
    if (version != 1 && version != 2) {
        throw std::runtime_error(kUnsupportedVersion);
    }
    const std::uint32_t entryCount = readU32(bytes, cursor);

    // Every record takes at least 21 bytes, so a huge count runs off the end quickly.
    for (std::uint32_t i = 0; i < entryCount; ++i) {
        const std::uint32_t nameLength = readU32(bytes, cursor);
        Entry entry;
        entry.offset = readU64(bytes, cursor);
        entry.storedSize = readU64(bytes, cursor);
        if (version == 2) {
            entry.unpackedSize = readU64(bytes, cursor);
            entry.flags = readU32(bytes, cursor);
        } else {
            entry.unpackedSize = entry.storedSize;
        }
        if (nameLength == 0 || nameLength > bytes.size() - cursor ||
            entry.offset > bytes.size() || entry.storedSize > bytes.size() - entry.offset) {
            throw std::runtime_error(kCorruptDirectory);
        }
        const std::string_view name(reinterpret_cast<const char*>(bytes.data() + cursor),
                                    nameLength);
        cursor += nameLength;
        archive->entries_.insert_or_assign(normalizeArchivePath(name), entry);
    }
    return archive;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Other sources
// ---------------------------------------------------------------------------------------------

std::shared_ptr<DemoArchive> DemoArchive::loadDirectory(const std::string& directory) {
    const DirectoryListing listing = listDirectoryFiles(directory);
    // What the container of these files would weigh, stored: refused before a byte is read
    // when the sizes seen by the walk already say so.
    std::uint64_t containerSize = kHeaderSize;
    std::uint64_t contentSize = 0;
    for (const DirectoryFile& file : listing.files) {
        containerSize += kRecordSize + file.name.size();
        contentSize += std::min(file.size, kMaxFileSize + 1);
    }
    if (containerSize + contentSize > kMaxFileSize) {
        throw std::runtime_error(kDirectoryTooLarge + directory);
    }
    auto archive = std::make_shared<DemoArchive>();
    archive->bytes_.reserve(static_cast<std::size_t>(contentSize));
    for (const DirectoryFile& file : listing.files) {
        const std::uint64_t offset = archive->bytes_.size();
        if (!appendDirectoryFile(file, kMaxFileSize - containerSize - offset, archive->bytes_)) {
            throw std::runtime_error(kDirectoryTooLarge + directory);
        }
        const std::uint64_t size = archive->bytes_.size() - offset;
        archive->entries_.insert_or_assign(file.name, Entry{offset, size, size, 0});
    }
    return archive;
}

std::shared_ptr<DemoArchive> DemoArchive::fromFiles(const std::vector<ArchiveFile>& files) {
    auto archive = std::make_shared<DemoArchive>();
    std::size_t total = 0;
    for (const ArchiveFile& file : files) {
        total += file.bytes.size();
    }
    archive->bytes_.reserve(total);
    for (const ArchiveFile& file : files) {
        const std::uint64_t offset = archive->bytes_.size();
        archive->bytes_.insert(archive->bytes_.end(), file.bytes.begin(), file.bytes.end());
        const std::uint64_t size = file.bytes.size();
        archive->entries_.insert_or_assign(normalizeArchivePath(file.path),
                                           Entry{offset, size, size, 0});
    }
    return archive;
}

// ---------------------------------------------------------------------------------------------
// [SECTION] Lookups
// ---------------------------------------------------------------------------------------------

bool DemoArchive::contains(std::string_view path) const {
    return entries_.find(normalizeArchivePath(path)) != entries_.end();
}

ArchiveBytes DemoArchive::open(std::string_view path) const {
    std::string key = normalizeArchivePath(path);
    const auto found = entries_.find(key);
    if (found == entries_.end()) {
        throw std::runtime_error(kMissingFile + key);
    }
    const Entry& entry = found->second;
    const std::uint8_t* stored = bytes_.data() + entry.offset;
    if ((entry.flags & kGzipFlag) == 0) {
        return ArchiveBytes(stored, static_cast<std::size_t>(entry.storedSize));
    }
    if (const auto cached = inflatedCache_.find(key); cached != inflatedCache_.end()) {
        return cached->second;
    }
    // Inflate before inserting, so a failure leaves nothing behind and a later open retries.
    std::vector<std::uint8_t> inflated = inflateGzip(stored, entry.storedSize, entry.unpackedSize);
    const auto inserted = inflatedCache_.emplace(std::move(key), std::move(inflated)).first;
    return inserted->second;
}

std::string DemoArchive::readText(std::string_view path) const {
    const ArchiveBytes content = open(path);
    return std::string(reinterpret_cast<const char*>(content.data()), content.size());
}

std::vector<std::uint8_t> DemoArchive::readCopy(std::string_view path) const {
    const ArchiveBytes content = open(path);
    return std::vector<std::uint8_t>(content.begin(), content.end());
}

void DemoArchive::stream(std::string_view path,
                         const std::function<void(ArchiveBytes)>& sink) const {
    const std::string key = normalizeArchivePath(path);
    const auto found = entries_.find(key);
    if (found == entries_.end()) {
        throw std::runtime_error(kMissingFile + key);
    }
    const Entry& entry = found->second;
    const std::uint8_t* stored = bytes_.data() + entry.offset;
    if ((entry.flags & kGzipFlag) == 0) {
        sink(ArchiveBytes(stored, static_cast<std::size_t>(entry.storedSize)));
    } else if (const auto cached = inflatedCache_.find(key); cached != inflatedCache_.end()) {
        sink(cached->second);
    } else {
        inflateGzipInPieces(stored, entry.storedSize, entry.unpackedSize, sink);
    }
}

std::optional<std::uint64_t> DemoArchive::contentSize(const Entry& entry) {
    if ((entry.flags & kGzipFlag) == 0) {
        return entry.storedSize;
    }
    if (!inflatable(entry.storedSize, entry.unpackedSize)) {
        return std::nullopt;
    }
    return entry.unpackedSize;
}

} // namespace brisvale
