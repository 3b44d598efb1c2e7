#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace brisvale {

// One file to put into a container: its archive path, written as given, and its content.
struct ArchiveFile {
    std::string path;
    std::vector<std::uint8_t> bytes;
};

enum class ArchiveCompression {
    Auto, // gzip a file when that saves at least 10 % of its size (version 2 only)
    All,  // gzip every file (version 2 only)
    None, // store every file as is
};

struct ArchiveWriteOptions {
    std::uint32_t version = 2; // 1 or 2
    ArchiveCompression compression = ArchiveCompression::Auto;
};

// A gzip stream of `content` that depends on nothing but the content and the zlib build:
// modification time 0, no name, and a fixed operating-system byte.
std::vector<std::uint8_t> gzipDeterministic(std::span<const std::uint8_t> content);

// The container bytes for `files`, records and data in the order given: header, directory,
// then each file's data. Throws std::runtime_error for an empty path, an unknown version,
// compression with version 1, or a container larger than DemoArchive::load accepts.
std::vector<std::uint8_t> writeArchive(const std::vector<ArchiveFile>& files,
                                       const ArchiveWriteOptions& options = {});

// Writes writeArchive's bytes to `filePath` with replaceFileAtomically: either the old file
// stays or the whole new one is there; a link's target is written, a FIFO or device refused.
void writeArchiveFile(const std::string& filePath, const std::vector<ArchiveFile>& files,
                      const ArchiveWriteOptions& options = {});

} // namespace brisvale
