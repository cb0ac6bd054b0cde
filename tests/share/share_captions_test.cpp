// A plim with a captions file: sharing reads and counts its lines, and the staged picture
// shows them while the look shows captions; a damaged file is said. Where and when a line is
// drawn is checked by RecordedMomentSource and StageRenderer.
#include "captions/caption_track.h"
#include "library/library.h"
#include "share/share_plim.h"
#include "stage/stage_pixels.h"
#include "stage/staging_engine.h"
#include "testkit/test_movies.h"

#include <gtest/gtest.h>

using namespace plim;
using namespace plim::testkit;

TEST(ShareCaptions, TheCaptionTrackIsCountedAndDrawn)
{
    TempDir dir;
    const fs::path movie = dir / "Talk.mov";
    ASSERT_TRUE(writeTestMovie(movie, {.colors = {{0, 0x406080}}, .sound = false}));
    ASSERT_TRUE(PlimEdits{.look = PlimLook{.captions = true}}.write(movie, "test"));
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

    auto during = StagingEngine::frames(shown, {1.5});
    auto plain = StagingEngine::frames(hidden, {1.5});
    ASSERT_TRUE(during && plain);
    EXPECT_GT(stagetest::changed((*during)[0], (*plain)[0], 0, 0, 640, 360, 24), 500);

    writeText(CaptionTrack::fileBeside(movie), "{\"lines\": 12");
    auto damaged = SharePlim::read(movie);
    ASSERT_TRUE(damaged);
    EXPECT_EQ(damaged->captionLines, 0);
    EXPECT_TRUE(std::ranges::any_of(damaged->notices,
        [](const std::string& n) { return n.find("no captions are shown") != std::string::npos; }));
}
