// Writes demo containers: deterministic gzip, the version 1 and 2 layouts, and the file on disk
// (through replaceFileAtomically). Used by the packer, the tests and the content build.

#include "content/ArchiveWriter.h"

#include <zlib.h>

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "content/AtomicFile.h"
#include "content/DemoArchive.h"

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
    if (totalSize > DemoArchive::kMaxFileSize) {
        throw std::runtime_error("Archive of " + std::to_string(totalSize) +
                                 " bytes is larger than the 512 MiB a demo archive may hold");
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
    replaceFileAtomically(filePath, writeArchive(files, options));
}

} // namespace brisvale
