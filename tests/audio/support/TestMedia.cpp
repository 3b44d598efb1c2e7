// Writes real encoded test files with the ffmpeg program, from raw samples the test made.

#include "support/TestMedia.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace brisvale::test {
namespace {

void writeBytes(const std::string& path, const void* data, std::size_t size) {
    std::ofstream out(path, std::ios::binary);
    out.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
    if (!out) throw std::runtime_error("cannot write " + path);
}

void ffmpeg(const std::string& arguments) {
    const std::string command = "ffmpeg -nostdin -v error -y " + arguments;
    if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

std::string quoted(const std::string& text) { return "'" + text + "'"; }

} // namespace

std::vector<int16_t> makeSignal(int64_t frames, int channels, int sampleRate, float amplitude) {
    std::vector<int16_t> s(static_cast<size_t>(frames * channels));
    for (int64_t k = 0; k < frames; ++k) {
        const double t = static_cast<double>(k) / sampleRate;
        for (int c = 0; c < channels; ++c) {
            // A slow upward sweep per channel, each starting at its own frequency and phase.
            const double f0 = 330.0 + 110.0 * c;
            const double phase = 2.0 * M_PI * (f0 * t + 150.0 * t * t) + 0.7 + c;
            s[static_cast<size_t>(k * channels + c)] = static_cast<int16_t>(std::lround(amplitude * 32767.0 * std::sin(phase)));
        }
    }
    return s;
}

bool encoderAvailable(const std::string& name) { return avcodec_find_encoder_by_name(name.c_str()) != nullptr; }

std::vector<uint8_t> makePng(int width, int height) {
    TempDir dir;
    const std::string path = dir.file("picture.png");
    ffmpeg("-f lavfi -i testsrc=size=" + std::to_string(width) + "x" + std::to_string(height) +
           " -frames:v 1 -c:v png " + quoted(path));
    return readFile(path);
}

void encodeFile(const std::string& path, const EncodeRequest& request, const std::vector<int16_t>& samples) {
    const std::string raw = path + ".s16";
    writeBytes(raw, samples.data(), samples.size() * sizeof(int16_t));
    std::string arguments = "-f s16le -ar " + std::to_string(request.sampleRate) + " -ac " +
                            std::to_string(request.channels) + " -i " + quoted(raw);
    const std::string cover = path + ".cover.png";
    if (!request.cover.empty()) {
        writeBytes(cover, request.cover.data(), request.cover.size());
        arguments += " -i " + quoted(cover) +
                     " -map 0 -map 1 -c:v copy -disposition:v attached_pic -metadata:s:v 'comment=Cover (front)'";
    }
    arguments += " -c:a " + request.encoder + " -b:a " + std::to_string(64000 * request.channels);
    for (const auto& [key, value] : request.tags) {
        // Ogg writes the stream's tags, the other containers their own.
        arguments += " -metadata " + quoted(key + "=" + value) + " -metadata:s:a " + quoted(key + "=" + value);
    }
    for (const auto& [key, value] : request.muxerOptions) arguments += " -" + key + " " + value;
    // Written to a pipe, the muxer cannot go back to fill in lengths.
    arguments += " -f " + request.muxer + (request.streamed ? " - > " : " ") + quoted(path);
    ffmpeg(arguments);
    std::filesystem::remove(raw);
    std::filesystem::remove(cover);
}

std::vector<uint8_t> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

void* mallocCopy(const std::vector<uint8_t>& bytes) {
    void* block = std::malloc(bytes.size());
    if (block == nullptr) throw std::runtime_error("malloc failed");
    std::memcpy(block, bytes.data(), bytes.size());
    return block;
}

} // namespace brisvale::test
