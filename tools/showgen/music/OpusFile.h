// Encodes the rendered piece as Opus in Ogg through FFmpeg's libraries, with tags and a
// cover picture (a FLAC picture block in METADATA_BLOCK_PICTURE). Bit-exact and
// single-threaded, so the same samples always give the same file.
#pragma once

#include "music/Song.h"

#include <cstdint>
#include <string>
#include <vector>

namespace brisvale::showgen {

struct SongTags {
    std::string title;
    std::string artist;
    std::string album;
    std::string date;
    std::string genre;
    std::vector<std::uint8_t> coverPng;
    std::uint32_t coverWidth = 0;
    std::uint32_t coverHeight = 0;
};

// The picture block as Vorbis comments carry it (before base64).
std::vector<std::uint8_t> flacPictureBlock(const SongTags& tags);

// Throws std::runtime_error with one line on any failure.
void writeOggOpus(const std::string& path, const StereoPcm& pcm, const SongTags& tags, int bitRate);

}  // namespace brisvale::showgen
