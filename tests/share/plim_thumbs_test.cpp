#include "plan/plan.h"
#include "share/plim_thumbs.h"
#include "testkit/test_movies.h"

#include <gtest/gtest.h>
#include <libheif/heif.h>

#include <thread>
#include <tuple>

using namespace plim;
using namespace plim::testkit;

namespace {

PlimThumbs::Drawn drawn(int strip)
{
    PlimThumbs::Drawn out{solidImage(320, 180, 0xc82828), {}};
    for (int i = 0; i < strip; ++i)
        out.strip.push_back(solidImage(320, 180, 0x1400c8 | static_cast<uint32_t>(10 * i) << 8));
    return out;
}

} // namespace

TEST(PlimThumbs, TimesFollowTheEditedOutput)
{
    // {name, edit, recording seconds, the poster's time, the first and last strip pictures' times}
    using Case = std::tuple<const char*, EditPlan, double, double, double, double>;
    const EditPlan trimmed{.trimIn = 2, .trimOut = 12}; // 10 s of output
    const EditPlan cut{.cuts = {{"C", 2, 12, std::nullopt}}}; // 0-2 then 12-20: 10 s
    const EditPlan sped{.skips = {{{0, 8}, false, 4.0}}}; // 8 s play in 2, then 12 s: 14 s
    for (const auto& [name, plan, raw, poster, firstStrip, lastStrip] :
        std::vector<Case>{{"untouched", {}, 24, 10.8, 0.5, 23.5}, {"trimmed", trimmed, 20, 6.5, 2.2083333, 11.7916667},
            {"cut", cut, 20, 14.5, 0.2083333, 19.7916667}, {"sped-up", sped, 20, 12.3, 1.1666667, 19.7083333}}) {
        auto times = PlimThumbs::times(plan, raw);
        ASSERT_EQ(times.strip.size(), 24u) << name;
        EXPECT_NEAR(times.poster, poster, 1e-6) << name;
        EXPECT_NEAR(times.strip.front(), firstStrip, 1e-6) << name;
        EXPECT_NEAR(times.strip.back(), lastStrip, 1e-6) << name;
        EXPECT_TRUE(std::is_sorted(times.strip.begin(), times.strip.end())) << name;
    }
    auto empty = PlimThumbs::times({}, 0);
    EXPECT_EQ(empty.poster, 0);
}

TEST(PlimThumbs, StoresOneHeicThatDecodesAndReadsBack)
{
    TempDir dir;
    const fs::path movie = dir / "B.mov";
    writeText(movie, "movie");
    EXPECT_TRUE(PlimThumbs::isStale(movie));
    ASSERT_TRUE(PlimThumbs::store(drawn(24), movie));
    EXPECT_TRUE(fs::exists(dir / "B.thumbs.heic"));
    EXPECT_FALSE(PlimThumbs::isStale(movie));

    // libheif itself reads 25 images, the poster primary.
    heif_context* context = heif_context_alloc();
    ASSERT_EQ(heif_context_read_from_file(context, (dir / "B.thumbs.heic").c_str(), nullptr).code, heif_error_Ok);
    EXPECT_EQ(heif_context_get_number_of_top_level_images(context), 25);
    heif_context_free(context);

    auto back = PlimThumbs::read(movie);
    ASSERT_TRUE(back);
    ASSERT_EQ(back->strip.size(), 24u);
    ASSERT_EQ(back->poster.width, 320);
    ASSERT_EQ(back->poster.height, 180);
    const uint8_t* centre = back->poster.row(90) + 4 * 160; // red poster survives lossy coding
    EXPECT_NEAR(centre[2], 200, 12);
    EXPECT_NEAR(centre[1], 40, 12);
    EXPECT_NEAR(back->strip[23].row(90)[4 * 160 + 1], 230, 12);

    // Newer edits make the thumbnails stale.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    writeText(dir / "B.edits.json", "{}");
    EXPECT_TRUE(PlimThumbs::isStale(movie));
}

TEST(PlimThumbs, AFailedStoreLeavesNothingInPlace)
{
    TempDir dir;
    // B.thumbs.heic is taken by a folder with something in it: the rename cannot land.
    fs::create_directories(dir / "B.thumbs.heic" / "keep");
    auto blocked = PlimThumbs::store(drawn(2), dir / "B.mov");
    ASSERT_FALSE(blocked);
    EXPECT_EQ(blocked.error().sentence, "Thumbnails for B.mov could not be written. Check there is free space in "
        + dir.path().string() + ", then open the plim again. The plim itself is untouched.");
    EXPECT_TRUE(fs::is_directory(dir / "B.thumbs.heic" / "keep"));
    int entries = 0;
    for ([[maybe_unused]] auto& entry : fs::directory_iterator(dir.path()))
        ++entries;
    EXPECT_EQ(entries, 1) << "a partial file was left behind";

    auto missingFolder = PlimThumbs::store(drawn(1), dir / "gone" / "C.mov");
    ASSERT_FALSE(missingFolder);
    EXPECT_FALSE(fs::exists(dir / "gone"));
    auto nothing = PlimThumbs::store({}, dir / "D.mov");
    ASSERT_FALSE(nothing);
    EXPECT_EQ(nothing.error().sentence, "Thumbnails for D.mov could not be written: this computer cannot write HEIC images "
                                        "here (there is no picture to store). The plim itself is untouched.");
    EXPECT_FALSE(PlimThumbs::read(dir / "D.mov"));
}

TEST(PlimThumbs, DrawsThePosterAndStripAsTheStagedPictureShowsThem)
{
    TempDir dir;
    const fs::path movie = dir / "B.mov";
    ASSERT_TRUE(writeTestMovie(movie, {.sound = false})); // red for a second, then green, then blue
    auto drawn = PlimThumbs::draw(movie);
    ASSERT_TRUE(drawn) << drawn.error().sentence;
    ASSERT_EQ(drawn->strip.size(), 24u);
    // The card's middle: the poster at 0.45 × 3 s is green; the strip runs red to blue.
    auto middle = [](const Image& image) { return image.row(image.height / 2) + 4 * (image.width / 2); };
    EXPECT_EQ(drawn->poster.width, 320);
    EXPECT_EQ(drawn->poster.height, 200);
    EXPECT_GT(middle(drawn->poster)[1], 150);
    EXPECT_GT(middle(drawn->strip.front())[2], 150);
    EXPECT_GT(middle(drawn->strip.back())[0], 150);

    auto posterOnly = PlimThumbs::draw(movie, std::nullopt, true);
    ASSERT_TRUE(posterOnly);
    EXPECT_TRUE(posterOnly->strip.empty());
    // A movie that cannot be drawn is said by plimctl thumbs (ShareCliTest).
}
