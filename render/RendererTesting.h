#pragma once
// Test-only access to a Renderer's implementation: the tests read and drive Impl members
// directly instead of widening the Renderer interface. Not for the show itself.

#include "render/Renderer.h"
#include "render/RendererImpl.h"

#include <cstdint>
#include <vector>

namespace brisvale {

class RendererTesting {
public:
    static Renderer::Impl& impl(Renderer& renderer) { return *renderer.impl_; }
    // One layer of the image array as stored: 1024 × 1024 × 4 bytes, RGBA, first row first.
    static std::vector<std::uint8_t> readImageLayer(Renderer& renderer, std::uint32_t layer);
};

} // namespace brisvale
