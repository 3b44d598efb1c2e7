// brisvale-make-music OUT.ogg [COVER.png]: renders the default show's piece and writes it
// as tagged Opus in Ogg, with the PNG as its cover picture.
#include "music/OpusFile.h"
#include "music/Song.h"

#include <cstdio>
#include <exception>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace {

std::vector<std::uint8_t> readFile(const char* path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error(std::string("Cannot read ") + path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::uint32_t be32(const std::vector<std::uint8_t>& b, std::size_t at) {
    return (std::uint32_t{b[at]} << 24) | (std::uint32_t{b[at + 1]} << 16) | (std::uint32_t{b[at + 2]} << 8) | b[at + 3];
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3) {
        std::fprintf(stderr, "usage: brisvale-make-music OUT.ogg [COVER.png]\n");
        return 2;
    }
    try {
        brisvale::showgen::SongTags tags{"Lanterns over Brisvale", "The Brisvale Synth Ensemble", "Brisvale", "2026",
                                         "Electronic", {}, 0, 0};
        if (argc == 3) {
            tags.coverPng = readFile(argv[2]);
            static constexpr unsigned char kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
            if (tags.coverPng.size() < 33 || !std::equal(std::begin(kSignature), std::end(kSignature), tags.coverPng.begin()))
                throw std::runtime_error(std::string("Not a PNG file: ") + argv[2]);
            tags.coverWidth = be32(tags.coverPng, 16);
            tags.coverHeight = be32(tags.coverPng, 20);
        }
        const brisvale::showgen::StereoPcm pcm = brisvale::showgen::renderSong();
        brisvale::showgen::writeOggOpus(argv[1], pcm, tags, 160000);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "brisvale-make-music: %s\n", e.what());
        return 1;
    }
    return 0;
}
