// The CPU compositor's kernels against what they must compute: Gaussian spread, block
// means, sub-pixel placement, shrink filtering, copies around a hole, text and colours.

#include "stage/compositor.h"
#include "stage/stage_style.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>

namespace plim {
namespace {

int grey(const Image& image, int x, int y) { return image.row(y)[x * 4 + 1]; }

Image filled(int w, int h, int (*value)(int x, int y))
{
    Image image = Image::allocate(w, h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const auto v = static_cast<uint8_t>(value(x, y));
            uint8_t* p = image.row(y) + x * 4;
            p[0] = p[1] = p[2] = v;
            p[3] = 255;
        }
    return image;
}

std::unique_ptr<Compositor> cpu()
{
    auto made = Compositor::create({Compositor::Backend::cpu, 2});
    EXPECT_TRUE(made.has_value());
    return std::move(*made);
}

// A step from black to white blurred by sigma: at one sigma into the dark side the value
// is about 15.9% of white, at the edge about 50%, whichever reduction the kernel picks.
TEST(Compositor, BlurSpreadsAStepLikeAGaussian)
{
    auto c = cpu();
    for (double sigma : {3.0, 8.0, 20.0}) {
        Image image = filled(400, 40, [](int x, int) { return x < 200 ? 0 : 255; });
        c->blur(image, {0, 0, 400, 40}, sigma);
        const int oneSigma = static_cast<int>(std::lround(200 - sigma - 0.5));
        EXPECT_NEAR(grey(image, oneSigma, 20), 0.159 * 255, 12) << "sigma " << sigma;
        EXPECT_NEAR((grey(image, 199, 20) + grey(image, 200, 20)) / 2.0, 127.5, 10) << "sigma " << sigma;
        EXPECT_LT(grey(image, static_cast<int>(200 - 3.5 * sigma), 20), 4) << "sigma " << sigma;
    }
}

TEST(Compositor, PixelateMakesBlocksCentredOnTheBox)
{
    auto c = cpu();
    Image image = filled(100, 100, [](int x, int y) { return (x * 2 + y) % 256; });
    c->pixelate(image, {20, 20, 60, 60}, 10);
    // The block around the centre (50, 50) spans 45..54 and is one mean value.
    for (int y = 45; y < 55; ++y)
        for (int x = 45; x < 55; ++x)
            EXPECT_EQ(grey(image, x, y), grey(image, 45, 45));
    EXPECT_NE(grey(image, 44, 45), grey(image, 45, 45));
    EXPECT_NEAR(grey(image, 45, 45), (49.5 * 2 + 49.5), 1);
    EXPECT_EQ(grey(image, 10, 10), 30);
}

TEST(Compositor, PlacementIsSubPixel)
{
    auto c = cpu();
    const Image white = filled(20, 20, [](int, int) { return 255; });
    for (double shift : {0.0, 0.25, 0.5, 0.75}) {
        Image target = filled(60, 20, [](int, int) { return 0; });
        c->draw(target, white, Affine::translation(20 + shift, 0));
        // The left edge pixel is covered by 1 - shift.
        EXPECT_NEAR(grey(target, 20, 10), 255 * (1 - shift), 3) << shift;
        EXPECT_NEAR(grey(target, 40, 10), 255 * shift, 3) << shift;
    }
}

TEST(Compositor, StrongShrinkAveragesInsteadOfAliasing)
{
    auto c = cpu();
    // One-pixel stripes shrunk 3.3x must become an even grey, not a beat pattern.
    const Image stripes = filled(400, 400, [](int x, int) { return (x % 2) * 255; });
    Image target = filled(100, 100, [](int, int) { return 0; });
    c->draw(target, stripes, Affine::scale(0.3, 0.3));
    for (int x = 10; x < 90; x += 7)
        EXPECT_NEAR(grey(target, x, 50), 127, 8) << x;
}

TEST(Compositor, CopyLeavesTheHole)
{
    auto c = cpu();
    const Image source = filled(50, 50, [](int, int) { return 200; });
    Image target = filled(50, 50, [](int, int) { return 7; });
    c->copy(target, source, Rect{10.5, 10, 20, 20});
    EXPECT_EQ(grey(target, 10, 15), 200); // partly inside: copied
    EXPECT_EQ(grey(target, 11, 15), 7);
    EXPECT_EQ(grey(target, 29, 29), 7);
    EXPECT_EQ(grey(target, 30, 15), 200);
    EXPECT_EQ(grey(target, 15, 30), 200);
}

TEST(Compositor, TextIsSetWithItsBaseline)
{
    auto c = cpu();
    TextStyle style{.size = 32};
    const TextLayer one = c->text("Save", style);
    ASSERT_FALSE(one.image.isEmpty());
    EXPECT_NEAR(one.logical.height, 32 * 1.36, 8); // Noto Sans line height
    EXPECT_GT(one.baseline, one.image.height * 0.6);
    EXPECT_LT(one.baseline, one.image.height);
    const TextLayer two = c->text("Save Save", style);
    EXPECT_GT(two.logical.width, one.logical.width * 1.9);
    // Wrapped into lines no wider than asked.
    style.maxWidth = 120;
    const TextLayer wrapped = c->text("Save the file before you go", style);
    EXPECT_LE(wrapped.logical.width, 124);
    EXPECT_GT(wrapped.logical.height, 2 * one.logical.height);
    EXPECT_TRUE(c->text("", style).image.isEmpty());

    // In the keycaps' typeface every key symbol stands on the letters' baseline at about
    // their height: the ink of the symbol's columns against the S's.
    style = {.family = stage_style::fontFamily, .size = 40};
    for (const char* symbol : {"⌃", "⌥", "⇧", "⌘"}) {
        const TextLayer cap = c->text(std::string(symbol) + "S", style);
        const Image& img = cap.image;
        ASSERT_FALSE(img.isEmpty()) << symbol;
        // Ink rows of the columns up to the first blank one after ink, and of the rest.
        int split = -1;
        bool inked = false;
        std::array<int, 2> top{img.height, img.height}, bottom{-1, -1};
        for (int x = 0; x < img.width; ++x) {
            bool any = false;
            for (int y = 0; y < img.height; ++y) {
                if (img.row(y)[x * 4 + 3] < 100)
                    continue;
                any = true;
                const int part = split < 0 ? 0 : 1;
                top[part] = std::min(top[part], y);
                bottom[part] = std::max(bottom[part], y);
            }
            if (any)
                inked = true;
            else if (inked && split < 0)
                split = x;
        }
        ASSERT_GE(bottom[1], 0) << symbol << ": the symbol and the S should not touch";
        EXPECT_NEAR(bottom[0], bottom[1], 2) << symbol << " stands on the baseline";
        const double ratio = double(bottom[0] - top[0]) / (bottom[1] - top[1]);
        EXPECT_GT(ratio, 0.65) << symbol << " is about as tall as the letter";
        EXPECT_LT(ratio, 1.3) << symbol;
    }
}

TEST(Compositor, ColoursFromHex)
{
    for (const auto& [text, colour] : std::vector<std::pair<const char*, std::optional<Color>>>{
             {"#336699", Color{0x33 / 255.0, 0x66 / 255.0, 0x99 / 255.0, 1}},
             {"336699", Color{0x33 / 255.0, 0x66 / 255.0, 0x99 / 255.0, 1}},
             {"#FFF", Color{1, 1, 1, 1}},
             {"#00000080", Color{0, 0, 0, 0x80 / 255.0}},
             {"#12345", std::nullopt},
             {"#GG0000", std::nullopt},
             {"", std::nullopt},
         })
        EXPECT_EQ(Color::fromHex(text), colour) << text;
}

} // namespace
} // namespace plim
