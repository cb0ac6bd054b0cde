// A plim with a captions file: sharing reads and counts its lines, and the staged picture
// shows the line of each instant, only while the look shows captions.
#include "captions/caption_track.h"
#include "library/library.h"
#include "share/share_plim.h"
#include "stage/staging_engine.h"
#include "testkit/test_movies.h"

#include <gtest/gtest.h>

using namespace plim;
using namespace plim::testkit;

namespace {

struct Difference {
    int pixels = 0;
    int top = 1 << 30, bottom = -1, left = 1 << 30, right = -1;
};

Difference difference(const Image& a, const Image& b)
{
    Difference d;
    for (int y = 0; y < a.height; ++y)
        for (int x = 0; x < a.width; ++x) {
            const uint8_t* p = a.row(y) + x * 4;
            const uint8_t* q = b.row(y) + x * 4;
            if (std::abs(p[0] - q[0]) + std::abs(p[1] - q[1]) + std::abs(p[2] - q[2]) > 24) {
                ++d.pixels;
                d.top = std::min(d.top, y), d.bottom = std::max(d.bottom, y);
                d.left = std::min(d.left, x), d.right = std::max(d.right, x);
            }
        }
    return d;
}

TEST(ShareCaptions, TheCaptionTrackIsCountedAndDrawnAtItsTimes)
{
    TempDir dir;
    const fs::path movie = dir / "Talk.mov";
    TestMovie m;
    m.sound = false;
    m.colors = {{0, 0x406080}};
    ASSERT_TRUE(writeTestMovie(movie, m));
    PlimEdits edits;
    edits.look = PlimLook{};
    edits.look->captions = true;
    ASSERT_TRUE(edits.write(movie, "test"));
    const CaptionTrack track{{{"Hello from the captions", 1.0, 2.0}}};
    ASSERT_TRUE(track.writeBeside(movie));

    auto plim = SharePlim::read(movie);
    ASSERT_TRUE(plim) << plim.error().sentence;
    EXPECT_EQ(plim->captionLines, 1);
    EXPECT_EQ(plim->job.captions, track);
    StagingJob shown = plim->job;
    shown.canvas = RenderRules::PixelSize{640, 360};
    StagingJob hidden = shown;
    hidden.look.captions = false;

    auto frames = StagingEngine::frames(shown, {0.5, 1.5, 2.5});
    auto plain = StagingEngine::frames(hidden, {0.5, 1.5, 2.5});
    ASSERT_TRUE(frames && plain);
    // Before and after the line nothing is drawn; during it, text on the lower part.
    EXPECT_EQ(difference((*frames)[0], (*plain)[0]).pixels, 0);
    EXPECT_EQ(difference((*frames)[2], (*plain)[2]).pixels, 0);
    const Difference during = difference((*frames)[1], (*plain)[1]);
    EXPECT_GT(during.pixels, 500);
    EXPECT_GT(during.top, 360 * 0.6);
    EXPECT_LT(std::abs((during.left + during.right) / 2 - 320), 20) << "the line is centred";

    // A damaged captions file: the plim shares without captions and says so.
    writeText(CaptionTrack::fileBeside(movie), "{\"lines\": 12");
    auto damaged = SharePlim::read(movie);
    ASSERT_TRUE(damaged);
    EXPECT_EQ(damaged->captionLines, 0);
    EXPECT_TRUE(std::ranges::any_of(damaged->notices,
        [](const std::string& n) { return n.find("no captions are shown") != std::string::npos; }));
}

} // namespace
