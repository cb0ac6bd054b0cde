#include "share/gif_sink.h"
#include "testkit/testkit.h"
#include "share/gif_check.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

using namespace plim;
using namespace plim::testkit;

namespace {

// A dark screen with a bright square that moves `step` pixels a frame and a soft gradient band.
Image screen(int width, int height, int frame)
{
    Image image = Image::allocate(width, height);
    for (int y = 0; y < height; ++y) {
        uint8_t* row = image.row(y);
        for (int x = 0; x < width; ++x) {
            row[4 * x + 0] = static_cast<uint8_t>(40 + (y * 80) / height); // blue rises down the screen
            row[4 * x + 1] = 30;
            row[4 * x + 2] = static_cast<uint8_t>((x * 255) / width);
            row[4 * x + 3] = 255;
        }
    }
    // From frame 6 on, a third of the pixels of a large area shift a little every frame, as
    // a decoded movie's noise does: many changed pixels among unchanged ones.
    for (int y = 200; frame >= 6 && y < std::min(height, 500); ++y)
        for (int x = 300; x < std::min(width, 900); ++x)
            if ((x + y + frame) % 3 == 0)
                image.row(y)[4 * x + 1] = static_cast<uint8_t>(30 + 12 * (frame - 5));
    const int x0 = 20 + std::min(frame, 5) * 16;
    for (int y = 100; y < 160 && y < height; ++y)
        for (int x = x0; x < x0 + 60 && x < width; ++x)
            std::memcpy(image.row(y) + 4 * x, "\xF0\xF0\xF0\xFF", 4);
    return image;
}

} // namespace

TEST(GIFSink, DelaysRoundToHundredthsAndNeverGoUnderTwo)
{
    for (auto [seconds, hundredths] : std::vector<std::pair<double, int>>{
             {0.013, 2}, {0.083, 8}, {1.0 / 12, 8}, {0.0, 2}, {0.025, 3}, {0.5, 50}, {NAN, 2}, {-1.0, 2}})
        EXPECT_EQ(GIFSink::delayHundredths(seconds), hundredths) << seconds;
}

TEST(GIFSink, WritesALoopingGifWhoseStillAreasStayTransparent)
{
    TempDir dir;
    const fs::path path = dir / "clip partial.gif";
    auto sink = GIFSink::create(path, {1152, 648});
    ASSERT_TRUE(sink) << sink.error().sentence;
    const int frames = 12;
    for (int i = 0; i < frames; ++i)
        ASSERT_TRUE((*sink)->append(screen(1152, 648, i == 11 ? 10 : i), i / 12.0));
    ASSERT_TRUE((*sink)->finish());

    // Readable by others, as any file the user saves (giflib alone would make it owner-only).
    EXPECT_NE(fs::status(path).permissions() & fs::perms::others_read, fs::perms::none);
    DecodedGif gif = decodeGif(path);
    EXPECT_EQ(gif.width, 1152);
    EXPECT_EQ(gif.height, 648);
    EXPECT_EQ(gif.loopCount, 0);
    ASSERT_EQ(gif.delays.size(), size_t(frames));
    for (int delay : gif.delays)
        EXPECT_EQ(delay, 8);
    // The first frame is whole; a moving square changes only its own strip; a repeated frame is one pixel.
    EXPECT_EQ(gif.frameSizes[0], std::make_pair(1152, 648));
    EXPECT_LE(gif.frameSizes[1].first, 80);
    EXPECT_LE(gif.frameSizes[1].second, 60);
    EXPECT_EQ(gif.frameSizes[frames - 1], std::make_pair(1, 1));

    // Played back (ffmpeg composes each frame over the ones before), the last frame shows
    // the last picture: the transparent pixels really let the earlier frames through.
    auto played = runCommand({"ffmpeg", "-v", "error", "-i", path.string(), "-vf", "select=eq(n\\,11)", "-frames:v", "1",
        "-f", "rawvideo", "-pix_fmt", "bgra", "-"});
    ASSERT_EQ(played.out.size(), size_t(1152 * 648 * 4)) << played.err;
    const Image expected = screen(1152, 648, 10);
    double error = 0;
    for (int y = 0; y < 648; ++y)
        for (int x = 0; x < 1152 * 4; x += 4)
            for (int c = 0; c < 3; ++c)
                error += std::abs(int(uint8_t(played.out[size_t(y) * 1152 * 4 + x + c])) - int(expected.row(y)[x + c]));
    EXPECT_LT(error / (1152.0 * 648 * 3), 4.0);

    // ffprobe reads the same size and twelve frames; the rounded 0.08 s delay plays them at 12.5 a second.
    EXPECT_EQ(probe(path, "v:0", "stream=width,height,avg_frame_rate,nb_read_frames", {"-count_frames"}),
        "1152,648,25/2,12");
}

TEST(GIFSink, CancelAndFailuresLeaveNoFile)
{
    TempDir dir;
    const fs::path path = dir / "gone partial.gif";
    {
        auto sink = GIFSink::create(path, {64, 36});
        ASSERT_TRUE(sink);
        ASSERT_TRUE((*sink)->append(screen(64, 36, 0), 0));
        ASSERT_TRUE((*sink)->append(screen(64, 36, 1), 0.5));
        EXPECT_TRUE(fs::exists(path));
        (*sink)->cancel();
        EXPECT_FALSE(fs::exists(path));
    }
    {
        auto sink = GIFSink::create(path, {64, 36});
        ASSERT_TRUE(sink);
        ASSERT_TRUE((*sink)->append(screen(64, 36, 0), 0));
    } // dropped without finishing
    EXPECT_FALSE(fs::exists(path));

    auto nowhere = GIFSink::create(dir / "missing" / "x.gif", {64, 36});
    ASSERT_FALSE(nowhere);
    EXPECT_EQ(nowhere.error().sentence, "The file could not be written: the GIF file could not be created at "
        + (dir / "missing" / "x.gif").string() + ". Nothing was saved and your plim is untouched. "
        "Check there is free space where it saves, then share again.");
    auto empty = GIFSink::create(path, {64, 36});
    ASSERT_TRUE(empty);
    EXPECT_FALSE((*empty)->append(Image{}, 0));
    EXPECT_FALSE((*empty)->finish()); // nothing to write is not a GIF
    EXPECT_FALSE(fs::exists(path));
}
