#include "capture/capture.h"
#include "plan/plan.h"
#include "stage/recorded_moment_source.h"

#include <gtest/gtest.h>

#include <cmath>

namespace plim {
namespace {

using Parts = RecordedMomentSource::Parts;
using Clicks = std::vector<StageMoment::Click>;

// Five seconds of smoothed pointer: at 0.2 until 1 s, at 0.5 from then on.
Parts stepPointer()
{
    Parts parts;
    for (int k = 0; k <= 600; ++k) {
        parts.smoother.xs.push_back(k < 120 ? 0.2 : 0.5);
        parts.smoother.ys.push_back(0.5);
    }
    return parts;
}

TEST(RecordedMomentSourceTest, ThePointerFollowsTheSmootherAndFadesAtRest)
{
    Parts parts = stepPointer();
    RecordedMomentSource source(parts);
    StageMoment m = source.moment(119.5 / 120, 0.5);
    EXPECT_NEAR(m.cursor->x, 0.35, 1e-9);
    EXPECT_NEAR(m.cursor->previousX, 0.2, 1e-9);
    EXPECT_EQ(source.moment(2.0, NAN).cursor->previousX, 0.5);

    // Resting from 1 s: fully shown until 1.6 s of rest, gone after 2.3 s.
    EXPECT_NEAR(source.idleTime(3.0), 2.0, 1e-9);
    for (auto [t, alpha] : {std::pair{1.05, 1.0}, {2.6, 1.0}, {3.0, 1 - 0.4 / 0.7}, {3.35, 0.0}, {4.9, 0.0}})
        EXPECT_NEAR(source.moment(t, 0.01).cursor->alpha, alpha, 1e-9) << t;

    parts.smoother.xs.assign(601, 0.3); // at rest since the recording began
    EXPECT_NEAR(RecordedMomentSource(parts).idleTime(1.95), 1.95, 1e-9);
    parts.smoother.xs.resize(400);
    parts.smoother.xs.resize(601, 0.9); // moving again brings it back at once
    EXPECT_EQ(RecordedMomentSource(parts).restingAlpha(400.0 / 120 + 0.05), 1);

    parts.switches.hidesIdleCursor = false;
    EXPECT_EQ(RecordedMomentSource(parts).moment(3.2, 0.01).cursor->alpha, 1);
    parts.switches.reportsPointer = false;
    EXPECT_EQ(RecordedMomentSource(parts).moment(1.0, 0.01).cursor->alpha, 0);
    parts.switches.hasCursor = false;
    EXPECT_FALSE(RecordedMomentSource(parts).moment(1.0, 0.01).cursor);
}

TEST(RecordedMomentSourceTest, ClicksLiveForTheirLifeAndPressBriefly)
{
    Parts parts = stepPointer();
    parts.clickLife = 0.6;
    parts.clickBeats = {{0.55, 0.7, 0.8}, {0.25, 0.1, 0.2}, {NAN, 0.5, 0.5}, {9.0, 1.5, -3}};
    RecordedMomentSource source(parts);
    EXPECT_EQ(source.clickBeats(), (std::vector<RecordedMomentSource::ClickBeat>{
                                       {0.25, 0.1, 0.2}, {0.55, 0.7, 0.8}, {9.0, 1.0, 0.0}}));

    EXPECT_TRUE(source.moment(0.2499, 0.01).clicks.empty());
    EXPECT_EQ(source.moment(0.25, 0.01).clicks, (Clicks{{0.1, 0.2, 0.0}}));
    StageMoment both = source.moment(0.8499, 0.01);
    ASSERT_EQ(both.clicks.size(), 2u);
    EXPECT_NEAR(both.clicks[0].age, 0.5999, 1e-9);
    EXPECT_NEAR(both.clicks[1].age, 0.2999, 1e-9);
    EXPECT_EQ(source.moment(0.85, 0.01).clicks.size(), 1u); // the first is gone at age 0.6

    for (auto [t, press] : {std::pair{0.2, 0.0}, {0.25, 1.0}, {0.33, 0.5}, {0.41, 0.0}, {0.7, 1 - 0.15 / 0.16}})
        EXPECT_NEAR(source.moment(t, 0.01).cursor->press, press, 1e-9) << t;
    parts.switches.emitsClicks = false;
    StageMoment off = RecordedMomentSource(parts).moment(0.25, 0.01);
    EXPECT_TRUE(off.clicks.empty());
    EXPECT_EQ(off.cursor->press, 0);
}

TEST(RecordedMomentSourceTest, MasksKeycapsCaptionsAndTransitionsAtTheirBoundaries)
{
    const Parts parts{.plan = {.masks = {MaskRegion{"A", 0.1, 0.1, 0.2, 0.2, 1.0, 2.0}},
                          .cuts = {CutRange{"C", 8.0, 9.0, TransitionSpec{TransitionSpec::Kind::blur, 0.4}}}},
        .keystrokes = {{{3000, "⌘C"}, {1000, "⌘S"}, {2000, "⏎"}, {2500, "⇥"}}},
        .captions = {{"second", 5.0, 7.0}, {"first", 4.0, 6.0}, {"broken", NAN, 9.0}, {"late", 6.5, 6.8}},
        .rawDuration = 20,
        .keyLinger = 1.0};
    RecordedMomentSource source(parts);

    EXPECT_EQ(source.moment(1.0, 0.01).masks, parts.plan.masks);
    EXPECT_TRUE(source.moment(2.0, 0.01).masks.empty());

    KeystrokeTrack sorted{{{1000, "⌘S"}, {2000, "⏎"}, {2500, "⇥"}, {3000, "⌘C"}}};
    for (double t : {0.0, 0.999, 1.0, 2.0, 2.4999, 2.5, 3.0, 4.0, 4.0001, double(NAN)})
        EXPECT_EQ(source.moment(t, 0.01).keycaps, sorted.captions(t, 1.0)) << t;
    EXPECT_EQ(source.moment(2.0, 0.01).keycapTime, 2.0);

    using Caption = std::optional<std::string>;
    for (auto [t, caption] : std::vector<std::pair<double, Caption>>{
             {3.99, {}}, {4.0, "first"}, {5.5, "first"}, {6.0, "second"}, {6.6, "second"}, {7.0, {}}, {NAN, {}}})
        EXPECT_EQ(source.moment(t, 0.01).caption, caption) << t;

    for (double t : {7.7, 7.85, 8.0, 9.0, 9.15, 9.3, 19.9})
        EXPECT_EQ(source.moment(t, 0.01).transition, parts.plan.transition(t, 20)) << t;
    EXPECT_EQ(source.moment(7.9, 0.01).transition->kind, TransitionSpec::Kind::blur);
}

TEST(RecordedMomentSourceTest, ZoomFollowsTheCurveAndReportsItsSpeed)
{
    Parts parts{.curve = ZoomCurve({ZoomBlock{"Z", 2.0, 6.0, 0.3, 0.3, 2.0}})};
    RecordedMomentSource source(parts);
    for (double t : {0.0, 2.1, 3.0, 5.9, 7.0})
        EXPECT_EQ(source.moment(t, 0.01).zoom, parts.curve.state(t)) << t;
    EXPECT_EQ(source.moment(1.0, 0.01).zoomVelocity, 0);
    EXPECT_GT(source.moment(2.2, 0.01).zoomVelocity, 0.5);
    EXPECT_EQ(source.moment(4.0, 0.01).zoomVelocity, 0);
    parts.switches.reportsMotion = false;
    EXPECT_EQ(RecordedMomentSource(parts).moment(2.2, 0.01).zoomVelocity, 0);
}

TEST(RecordedMomentSourceTest, PlimSourcesTakeTheirSwitchesFromTrackAndLook)
{
    const CursorTrack track{.displayWidth = 1000,
        .displayHeight = 500,
        .samples = {{0, 500, 250, 0}, {4000, 500, 250, 0}},
        .clicks = {{1000, 250, 125}, {2000, NAN, 0}}};
    const EditPlan plan{.taps = {TapMark{"T", 1.5, 0.4, 0.6}}};
    RecordedMomentSource screen = RecordedMomentSource::forPlim(track, {}, plan, StageSpec{}, 4.0);
    EXPECT_EQ(screen.clickBeats(), (std::vector<RecordedMomentSource::ClickBeat>{{1.0, 0.25, 0.25}}));
    EXPECT_EQ(screen.clickLife(), RecordedMomentSource::clickLifeFor(ClickStyle::ring));
    EXPECT_EQ(screen.moment(3.9, 0.01).cursor->alpha, 0); // resting since the start
    EXPECT_FALSE(screen.moment(1.6, 0.01).touch);         // taps are a phone's

    const StageSpec look{.cursorHideWhenIdle = false, .clickStyle = ClickStyle::none};
    RecordedMomentSource plain = RecordedMomentSource::forPlim(track, {}, plan, look, 4.0);
    EXPECT_TRUE(plain.moment(1.0, 0.01).clicks.empty());
    EXPECT_EQ(plain.moment(3.9, 0.01).cursor->alpha, 1);

    RecordedMomentSource phone =
        RecordedMomentSource::forPlim(CursorTrack::deviceTrack(1170, 2532), {}, plan, StageSpec{}, 4.0);
    EXPECT_FALSE(phone.moment(1.5, 0.01).cursor);
    EXPECT_EQ(phone.moment(1.5, 0.01).clicks, (Clicks{{0.4, 0.6, 0.0}}));
    EXPECT_FALSE(phone.moment(1.49, 0.01).touch);
    EXPECT_EQ(phone.moment(1.8, 0.01).touch, (StageMoment::Touch{0.4, 0.6}));
    EXPECT_FALSE(phone.moment(1.95, 0.01).touch);
}

TEST(RecordedMomentSourceTest, EveryReaderOfTheTracksPutsTheirStampsInMovieTime)
{
    // The movie starts 1000 ms into the tracks: a click at 1500 ms is at 0.5 s of movie for
    // the clicks drawn, the keycaps, the smoothed pointer and the automatic edit alike.
    CursorTrack track{.displayWidth = 100, .displayHeight = 100, .scale = 1, .videoStartOffsetMS = 1000};
    for (int64_t ms = 1000; ms <= 5000; ms += 10)
        track.samples.push_back({ms, ms < 1500 ? 10.0 : 90.0, 50, 0});
    track.clicks.push_back({1500, 90, 50});
    KeystrokeTrack keys{{{1500, "⌘S"}}};

    const StageSpec look{.clickStyle = ClickStyle::ring};
    RecordedMomentSource source = RecordedMomentSource::forPlim(track, keys, EditPlan{}, look, 4.0);
    EXPECT_EQ(source.clickBeats(), (std::vector<RecordedMomentSource::ClickBeat>{{0.5, 0.9, 0.5}}));
    EXPECT_EQ(source.moment(0.5, 0.01).clicks, (Clicks{{0.9, 0.5, 0.0}}));
    EXPECT_TRUE(source.moment(0.49, 0.01).keycaps.empty());
    ASSERT_EQ(source.moment(0.5, 0.01).keycaps.size(), 1u);
    EXPECT_EQ(source.moment(0.5, 0.01).keycaps[0].caption, "⌘S");
    // The pointer jumps at 0.5 s of movie: still where it was just before, gliding after.
    EXPECT_EQ(source.smoother().position(0.49).x, 0.1);
    EXPECT_GT(source.smoother().position(0.6).x, 0.3);

    AutoEdit::Performance seen = AutoEdit::performance(track, &keys, {}, 4.0);
    EXPECT_EQ(seen.actionPoints, (std::vector<AutoEdit::ActionPoint>{{0.5, 90, 50}}));
    EXPECT_EQ(seen.activity, (std::vector<double>{0.5}));
    EXPECT_EQ(seen.pointer.front().t, 0.0);
}

TEST(RecordedMomentSourceTest, MomentsDependOnlyOnTheirTime)
{
    CursorTrack track{.displayWidth = 100, .displayHeight = 100};
    for (int i = 0; i < 600; ++i) {
        track.samples.push_back({i * 17, 50 + 40 * std::sin(i * 0.05), 50 + 40 * std::cos(i * 0.07), 0});
        if (i % 30 == 0)
            track.clicks.push_back({i * 17, 10.0 * (i % 10), 50});
    }
    RecordedMomentSource source = RecordedMomentSource::forPlim(track, {}, EditPlan{}, StageSpec{}, 10.2);
    std::vector<StageMoment> forward;
    for (int f = 0; f < 600; ++f)
        forward.push_back(source.moment(f / 60.0, 1.0 / 60));
    for (int f = 599; f >= 0; f -= 7)
        EXPECT_EQ(source.moment(f / 60.0, 1.0 / 60), forward[static_cast<size_t>(f)]) << f;

    StageMoment odd = source.moment(NAN, NAN); // a calm moment, not a failure
    EXPECT_EQ(odd.zoom, ZoomState::identity());
    EXPECT_TRUE(odd.clicks.empty() && odd.keycaps.empty() && !odd.caption && !odd.transition);
    EXPECT_EQ(odd.cursor->alpha, 1);
    EXPECT_TRUE(source.moment(-1e300, 1e300).clicks.empty());
}

CameraPicture cameraPicture(int width, int height, int stride, size_t bytes)
{
    return {width, height, stride, std::make_shared<const std::vector<uint8_t>>(bytes, uint8_t{0x7f})};
}

TEST(CameraPictureTest, UsableOnlyWhenThePixelsCoverEveryRow)
{
    EXPECT_TRUE(cameraPicture(4, 2, 16, 32).isUsable());
    EXPECT_TRUE(cameraPicture(4, 2, 20, 40).isUsable()); // padded rows
    EXPECT_FALSE(cameraPicture(4, 2, 16, 31).isUsable());
    EXPECT_FALSE(cameraPicture(4, 2, 12, 24).isUsable()); // rows narrower than the width
    EXPECT_FALSE(cameraPicture(0, 2, 16, 32).isUsable());
    EXPECT_FALSE(cameraPicture(4, -1, 16, 32).isUsable());
    EXPECT_FALSE((CameraPicture{4, 2, 16, nullptr}).isUsable());

    // Moments compare camera frames by cameraPicture: the same values in another buffer differ.
    const StageMoment a{.cameraFrame = cameraPicture(2, 2, 8, 16)};
    StageMoment b = a;
    EXPECT_EQ(a, b);
    b.cameraFrame = cameraPicture(2, 2, 8, 16);
    EXPECT_NE(a, b);
}

} // namespace
} // namespace plim
