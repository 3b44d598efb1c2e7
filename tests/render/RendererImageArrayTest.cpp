// The image texture array on lavapipe: one 1024 × 1024 layer per listed image, in list order,
// RGBA8 as decoded (ImageDecodeTest checks the decoding), top row first; and the shows it refuses
// before spending anything on them.

#include "RenderTestSupport.h"

#include "render/RendererTesting.h"

namespace brisvale::testing {
namespace {

constexpr std::uint32_t kEdge = 1024;

class RendererImageArray : public GpuTest {
protected:
    void SetUp() override {
        GpuTest::SetUp();
        surface_ = std::make_unique<gpu::OffscreenSurface>(*device_, 16, 16);
    }
    std::unique_ptr<Renderer> withImages(std::vector<std::vector<std::uint8_t>> images) {
        ShowFiles files;
        files.images = std::move(images);
        return makeRenderer(*surface_, files);
    }
    std::string constructionError(std::vector<std::vector<std::uint8_t>> images) {
        return errorOf([&] { withImages(std::move(images)); });
    }
    std::unique_ptr<gpu::OffscreenSurface> surface_;
};

// A PNG that declares width × height in its header and holds no pixel data.
std::vector<std::uint8_t> pngDeclaring(std::uint32_t width, std::uint32_t height) {
    std::vector<std::uint8_t> png = solidPng(1, 1, 0, 0, 0, 255);
    png.resize(33);  // 8-byte signature + the 25-byte IHDR chunk
    for (int i = 0; i < 4; ++i) {
        png[16 + i] = static_cast<std::uint8_t>(width >> (24 - 8 * i));
        png[20 + i] = static_cast<std::uint8_t>(height >> (24 - 8 * i));
    }
    return png;
}

// An image whose pixels come from f(x, y) -> {r, g, b, a}.
template <class F> std::vector<std::uint8_t> patternPng(std::uint32_t width, std::uint32_t height, F f) {
    std::vector<std::uint8_t> rgba(std::size_t(width) * height * 4);
    for (std::uint32_t y = 0; y < height; ++y) {
        for (std::uint32_t x = 0; x < width; ++x) {
            const Pixel p = f(x, y);
            const std::size_t i = (std::size_t(y) * width + x) * 4;
            rgba[i] = static_cast<std::uint8_t>(p.r);
            rgba[i + 1] = static_cast<std::uint8_t>(p.g);
            rgba[i + 2] = static_cast<std::uint8_t>(p.b);
            rgba[i + 3] = static_cast<std::uint8_t>(p.a);
        }
    }
    return encodePng(width, height, rgba);
}

TEST_F(RendererImageArray, ThreeImagesGiveThreeLayersInListOrder) {
    auto renderer = withImages({solidPng(8, 8, 255, 0, 0, 255), solidPng(8, 8, 0, 255, 0, 255),
                                solidPng(8, 8, 0, 0, 255, 255)});
    Renderer::Impl& impl = RendererTesting::impl(*renderer);
    EXPECT_EQ(impl.imageCount, 3u);
    EXPECT_EQ(impl.imageTextureArray->layers(), 3u);
    EXPECT_EQ(impl.imageTextureArray->width(), kEdge);
    EXPECT_EQ(impl.imageTextureArray->height(), kEdge);
    EXPECT_EQ(impl.imageTextureArray->format(), VK_FORMAT_R8G8B8A8_UNORM);

    const auto layer1 = RendererTesting::readImageLayer(*renderer, 1);
    ASSERT_EQ(layer1.size(), std::size_t(kEdge) * kEdge * 4);
    EXPECT_TRUE(near(pixelAt(layer1, kEdge, 0, 0), Pixel{0, 255, 0, 255}, 0));
    EXPECT_TRUE(near(pixelAt(layer1, kEdge, 1023, 1023), Pixel{0, 255, 0, 255}, 0));
    EXPECT_TRUE(near(pixelAt(RendererTesting::readImageLayer(*renderer, 0), kEdge, 500, 500), Pixel{255, 0, 0, 255}, 0));
    EXPECT_TRUE(near(pixelAt(RendererTesting::readImageLayer(*renderer, 2), kEdge, 10, 900), Pixel{0, 0, 255, 255}, 0));
}

TEST_F(RendererImageArray, TheTopRowOfTheFileIsRowZero) {
    auto renderer = withImages({patternPng(16, 16, [](std::uint32_t, std::uint32_t y) {
        return y < 8 ? Pixel{255, 0, 0, 255} : Pixel{0, 0, 255, 255};
    })});
    const auto layer = RendererTesting::readImageLayer(*renderer, 0);
    EXPECT_TRUE(near(pixelAt(layer, kEdge, 300, 0), Pixel{255, 0, 0, 255}, 0));
    EXPECT_TRUE(near(pixelAt(layer, kEdge, 300, 1023), Pixel{0, 0, 255, 255}, 0));
}

TEST_F(RendererImageArray, TheShadersSeeTheImageCount) {
    auto renderer = withImages({solidPng(2, 2, 0, 0, 0, 255), solidPng(2, 2, 0, 0, 0, 255),
                                solidPng(2, 2, 0, 0, 0, 255), solidPng(2, 2, 0, 0, 0, 255)});
    FrameInfo frame;
    frame.timeSeconds = 30.0f;
    renderer->draw(frame);
    finishFrames();
    // The marker quad's top band carries imageCount / 8 in blue.
    EXPECT_TRUE(near(pixelAt(surface_->readbackRGBA(), 16, 8, 0), expected(1.0f / 2048, 1.0f / 2048, 0.5f), 1));
}

TEST_F(RendererImageArray, MoreImagesThanTheDeviceHoldsAreRefusedSayingHowMany) {
    const std::uint32_t count = device_->properties().limits.maxImageArrayLayers + 1;
    const std::string error = constructionError(std::vector(count, solidPng(1, 1, 0, 0, 0, 255)));
    const std::string prefix = "Failed to create image texture array: " + std::to_string(count) +
                               " images, the device allows at most ";
    ASSERT_EQ(error.substr(0, prefix.size()), prefix) << error;
    const std::uint64_t allowed = std::stoull(error.substr(prefix.size()));
    EXPECT_GE(allowed, 1u);
    // The whole array is one allocation: lavapipe's limit on that is what stops it first.
    EXPECT_LE(allowed * kEdge * kEdge * 4, device_->maxAllocationSize());
}

TEST_F(RendererImageArray, DecodingIsBudgetedAcrossTheWholeArrayFromTheHeaders) {
    // Eight of the largest images a show may hold use the whole budget: the array is made and
    // decoding starts (and fails on the first, which has no pixel data).
    std::vector<std::vector<std::uint8_t>> images(8, pngDeclaring(8192, 8192));
    EXPECT_EQ(constructionError(images), "Failed to decode image: images/0.png");
    // A ninth is refused, by name, before any is decoded.
    images.push_back(pngDeclaring(1, 1));
    EXPECT_EQ(constructionError(images), "Images together are larger than 536870912 pixels: images/8.png");
}

} // namespace
} // namespace brisvale::testing
