#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace brisvale {

// One regular file found under a directory.
struct DirectoryFile {
    std::string name;             // its archive path: relative to the directory, '/'-separated
    std::filesystem::path source; // where its content is read (for a link, the file it leads to)
    std::uint64_t size = 0;       // its size when the directory was walked
};

struct DirectoryListing {
    std::vector<DirectoryFile> files;  // sorted by name, byte for byte
    std::vector<std::string> skipped;  // one printable note per thing left out: "'name': reason"
};

// A show holds a few dozen files; a walk that finds more than this (skipped ones included) was
// given the wrong directory.
inline constexpr std::size_t kMaxDirectoryFiles = 65536;

// The files of a directory as a show's files, for the packer and the directory source alike.
// Every regular file under `root` counts, under its path relative to `root`. A symbolic link
// counts only when it leads to a regular file inside `root` (as that file's content, under the
// link's name); links elsewhere, links to directories, dangling links and anything that is no
// regular file are skipped with a note, and so is `excluded` (the packer's output file).
// Throws std::runtime_error with one line: "not a directory: ROOT", "cannot read directory
// ROOT: REASON", "more than 65536 files under ROOT", or "cannot take 'NAME': its name would
// read as a different archive path" (a backslash is a separator inside the archive).
DirectoryListing listDirectoryFiles(const std::filesystem::path& root,
                                    const std::filesystem::path& excluded = {});

// Appends the content of `file` to `out`; returns false, and leaves `out` as it was, when the
// file holds more than `limit` bytes (known before reading it when its size says so). Opens
// regular files only and never waits on one. Throws std::runtime_error with one line, "cannot
// read PATH: REASON", when the file cannot be read, is gone, or changed its size while read.
bool appendDirectoryFile(const DirectoryFile& file, std::uint64_t limit,
                         std::vector<std::uint8_t>& out);

} // namespace brisvale
