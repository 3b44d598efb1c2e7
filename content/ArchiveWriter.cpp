// Writes demo containers: deterministic gzip, the version 1 and 2 layouts, and an atomic
// replacement of the file on disk. Used by the packer, the tests and the content build.

#include "content/ArchiveWriter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace brisvale {
namespace {

constexpr std::uint8_t kGzipOsUnknown = 255;

void appendU32(std::vector<std::uint8_t>& out, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

void appendU64(std::vector<std::uint8_t>& out, std::uint64_t value) {
    for (int i = 0; i < 8; ++i) {
        out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

// Closes a descriptor and removes the temporary file unless it was renamed into place.
class TempFile {
public:
    explicit TempFile(const std::string& target) : path_(target + ".tmp-XXXXXX") {
        fd_ = mkstemp(path_.data());
        if (fd_ < 0) {
            throw std::runtime_error("Failed to create " + path_ + ": " + std::strerror(errno));
        }
    }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;
    ~TempFile() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        if (!committed_) {
            ::unlink(path_.c_str());
        }
    }

    void write(std::span<const std::uint8_t> bytes) {
        while (!bytes.empty()) {
            const ssize_t written = ::write(fd_, bytes.data(), bytes.size());
            if (written < 0 && errno == EINTR) {
                continue;
            }
            if (written <= 0) {
                fail("Failed to write");
            }
            bytes = bytes.subspan(static_cast<std::size_t>(written));
        }
    }

    void commit(const std::string& target) {
        // mkstemp creates the file 0600; a container is an ordinary readable file.
        if (::fchmod(fd_, 0644) != 0 || ::fsync(fd_) != 0) {
            fail("Failed to write");
        }
        const int fd = fd_;
        fd_ = -1;
        if (::close(fd) != 0) {
            fail("Failed to write");
        }
        if (::rename(path_.c_str(), target.c_str()) != 0) {
            throw std::runtime_error("Failed to write " + target + ": " + std::strerror(errno));
        }
        committed_ = true;
    }

private:
    [[noreturn]] void fail(const char* what) const {
        throw std::runtime_error(std::string(what) + " " + path_ + ": " + std::strerror(errno));
    }

    std::string path_;
    int fd_ = -1;
    bool committed_ = false;
};

} // namespace

std::vector<std::uint8_t> gzipDeterministic(std::span<const std::uint8_t> content) {
    z_stream stream{};
    if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) !=
        Z_OK) {
        throw std::runtime_error("Failed to initialize gzip compressor");
    }
    // Frees zlib's state on every way out, a failed allocation included.
    struct DeflateEnd {
        z_stream* stream;
        ~DeflateEnd() { deflateEnd(stream); }
    } end{&stream};
    gz_header header{};
    header.os = kGzipOsUnknown; // zlib would write the build platform's code
    deflateSetHeader(&stream, &header);

    std::vector<std::uint8_t> out(deflateBound(&stream, static_cast<uLong>(content.size())));
    std::size_t inputDone = 0;
    int result = Z_OK;
    // zlib counts in 32 bits, so large inputs go in slices.
    constexpr std::size_t kSlice = std::numeric_limits<uInt>::max();
    while (result != Z_STREAM_END) {
        const std::size_t inputLeft = content.size() - inputDone;
        stream.next_in = const_cast<Bytef*>(content.data() + inputDone);
        stream.avail_in = static_cast<uInt>(std::min(inputLeft, kSlice));
        if (stream.total_out == out.size()) {
            out.resize(out.size() * 2 + 64);
        }
        stream.next_out = out.data() + stream.total_out;
        stream.avail_out = static_cast<uInt>(std::min(out.size() - stream.total_out, kSlice));
        const std::size_t before = stream.avail_in;
        result = deflate(&stream, inputLeft <= kSlice ? Z_FINISH : Z_NO_FLUSH);
        inputDone += before - stream.avail_in;
        if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) {
            throw std::runtime_error("Failed to gzip archive file");
        }
    }
    out.resize(stream.total_out);
    return out;
}

std::vector<std::uint8_t> writeArchive(const std::vector<ArchiveFile>& files,
                                       const ArchiveWriteOptions& options) {
    if (options.version != 1 && options.version != 2) {
        throw std::runtime_error("Unsupported archive version: " +
                                 std::to_string(options.version));
    }
    if (options.version == 1 && options.compression == ArchiveCompression::All) {
        throw std::runtime_error("Version 1 archives cannot hold compressed files");
    }
    if (files.size() > std::numeric_limits<std::uint32_t>::max()) {
        throw std::runtime_error("Too many files for one archive");
    }

    struct Record {
        const ArchiveFile* file;
        std::vector<std::uint8_t> gzip; // empty when stored
        std::uint64_t storedSize;
    };
    std::vector<Record> records;
    records.reserve(files.size());
    std::uint64_t directorySize = 0;
    for (const ArchiveFile& file : files) {
        if (file.path.empty() || file.path.size() > std::numeric_limits<std::uint32_t>::max()) {
            throw std::runtime_error("Invalid archive file name: '" + file.path + "'");
        }
        Record record{&file, {}, file.bytes.size()};
        if (options.version == 2 && options.compression != ArchiveCompression::None) {
            std::vector<std::uint8_t> gzip = gzipDeterministic(file.bytes);
            // Auto keeps the gzip stream only when it is at most 90 % of the content.
            const bool keep = options.compression == ArchiveCompression::All ||
                              gzip.size() * 10 <= file.bytes.size() * 9;
            if (keep) {
                record.storedSize = gzip.size();
                record.gzip = std::move(gzip);
            }
        }
        directorySize += (options.version == 2 ? 32 : 20) + file.path.size();
        records.push_back(std::move(record));
    }

    std::uint64_t totalSize = 12 + directorySize;
    for (const Record& record : records) {
        totalSize += record.storedSize;
    }
    std::vector<std::uint8_t> out;
    out.reserve(static_cast<std::size_t>(totalSize));
    for (char c : {'B', 'D', 'A', 'T'}) {
        out.push_back(static_cast<std::uint8_t>(c));
    }
    appendU32(out, options.version);
    appendU32(out, static_cast<std::uint32_t>(records.size()));
    std::uint64_t dataOffset = 12 + directorySize;
    for (const Record& record : records) {
        const bool gzip = !record.gzip.empty(); // a gzip stream is never empty
        appendU32(out, static_cast<std::uint32_t>(record.file->path.size()));
        appendU64(out, dataOffset);
        appendU64(out, record.storedSize);
        if (options.version == 2) {
            appendU64(out, record.file->bytes.size());
            appendU32(out, gzip ? 1u : 0u);
        }
        out.insert(out.end(), record.file->path.begin(), record.file->path.end());
        dataOffset += record.storedSize;
    }
    for (const Record& record : records) {
        const std::vector<std::uint8_t>& data = record.gzip.empty() ? record.file->bytes
                                                                    : record.gzip;
        out.insert(out.end(), data.begin(), data.end());
    }
    return out;
}

void writeArchiveFile(const std::string& filePath, const std::vector<ArchiveFile>& files,
                      const ArchiveWriteOptions& options) {
    const std::vector<std::uint8_t> bytes = writeArchive(files, options);
    TempFile temp(filePath);
    temp.write(bytes);
    temp.commit(filePath);
}

} // namespace brisvale
