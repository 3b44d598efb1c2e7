// Fuzzes the renderer's image decoding with arbitrary file bytes, as the image array uses it:
// the header check, then the decode and the scale to one layer. Only std::runtime_error (the
// image messages) may come out; anything else, a crash, a hang, a large allocation or a
// sanitizer report is a finding. Seeds: corpus/fuzz_image/ (small files of each format the decoder
// knows, in their common variants).

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "render/ImageDecode.h"

namespace {

constexpr std::uint32_t kLayerEdge = 1024;  // the renderer's layer edge

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string path = "images/fuzz";
    try {
        const brisvale::ImageSize declared = brisvale::readImageSize(data, size, path);
        // Bigger images run the same decoder code, for seconds each under the sanitizers; the
        // header check above, which every input goes through, is what bounds them.
        if (std::uint64_t{declared.width} * declared.height > std::uint64_t{kLayerEdge} * kLayerEdge) {
            return 0;
        }
        const auto layer = brisvale::decodeImageToSquare(data, size, kLayerEdge, path);
        if (layer.size() != std::size_t{kLayerEdge} * kLayerEdge * 4) {
            std::abort();
        }
    } catch (const std::runtime_error&) {
    }
    return 0;
}
