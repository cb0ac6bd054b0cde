// The live pipeline on a stepped clock with the real stage renderer slowed by a script: the
// overruns it measures walk the ladder down and back up through the health check, and the
// sinks it feeds never hold each other up.

#include "live/live.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace plim {
namespace {

// The real renderer, taking `cost` seconds of the stepped clock per frame.
class SlowRenderer final : public StageRenderer {
public:
    SlowRenderer(std::unique_ptr<StageRenderer> real, SteppedLiveClock& clock) : m_real(std::move(real)), m_clock(clock) {}
    Image render(const Image& source, const StageMoment& moment, const std::optional<Affine>& t,
        const std::optional<Image>& camera) override
    {
        m_clock.spend(cost);
        last = moment;
        return m_real->render(source, moment, t, camera);
    }
    Placement placement(Size source, const StageMoment& moment) const override { return m_real->placement(source, moment); }
    Size canvas() const override { return m_real->canvas(); }
    const StageGeometry& geometry() const override { return m_real->geometry(); }
    const Image& ground() const override { return m_real->ground(); }

    double cost = 0;
    StageMoment last;

private:
    std::unique_ptr<StageRenderer> m_real;
    SteppedLiveClock& m_clock;
};

class ScriptedSink final : public LiveSink {
public:
    explicit ScriptedSink(std::string name) : m_name(std::move(name)) {}
    std::string name() const override { return m_name; }
    void consume(const LiveFrame& frame) override
    {
        if (throws)
            throw std::runtime_error("the device went away");
        if (holds)
            held.push_back(frame);
        sequences.push_back(frame.sequence);
        durations.push_back(frame.duration);
        last = frame;
    }
    LiveSinkHealth health() const override
    {
        return failed ? LiveSinkHealth{LiveSinkHealth::Failed{"It stopped taking frames."}}
                      : LiveSinkHealth{LiveSinkHealth::Running{0}};
    }
    void close() override { ++closed; }

    bool throws = false, holds = false, failed = false;
    int closed = 0;
    std::vector<LiveFrame> held;
    std::vector<int64_t> sequences;
    std::vector<double> durations;
    LiveFrame last;

private:
    std::string m_name;
};

uint32_t pixel(const Image& image, int x, int y) { return reinterpret_cast<const uint32_t*>(image.row(y))[x]; }

class LivePipelineTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        auto steppedClock = std::make_unique<SteppedLiveClock>(100);
        clock = steppedClock.get();
        auto real = StageRenderer::create(StageSpec{}, {192, 108}, {.content = {320, 200}});
        ASSERT_TRUE(real) << real.error().sentence;
        auto slowRenderer = std::make_shared<SlowRenderer>(std::move(*real), *clock);
        slow = slowRenderer.get();
        SceneBundle scene{slowRenderer,
            std::make_shared<LiveMomentSource>(LiveMomentSource::Options{}, switches, inputs), switches, true};
        pipeline = std::make_unique<LivePipeline>(std::move(steppedClock), scene, sinks(), 60);
        ASSERT_TRUE(pipeline->start());
    }
    virtual std::vector<std::shared_ptr<LiveSink>> sinks() { return {watcher}; }

    // Ticks for `seconds` of clock time with a fresh screen picture before each.
    void run(double seconds)
    {
        const double end = clock->now() + seconds;
        while (clock->now() < end - 1e-9) {
            pipeline->postScreen(screen);
            ASSERT_TRUE(clock->step());
        }
    }

    std::shared_ptr<LiveSwitches> switches = std::make_shared<LiveSwitches>();
    std::shared_ptr<LiveInputBus> inputs = std::make_shared<LiveInputBus>();
    std::shared_ptr<ScriptedSink> watcher = std::make_shared<ScriptedSink>("Watcher");
    Image screen = testkit::solidImage(320, 200, 0x3070c0);
    SteppedLiveClock* clock = nullptr;
    SlowRenderer* slow = nullptr;
    std::unique_ptr<LivePipeline> pipeline;
};

TEST_F(LivePipelineTest, MeasuredOverrunsWalkTheLadderDownAndBackUp)
{
    LiveHealthWatch watch;
    // 25 ms a frame misses every other 60 fps tick: 15 overruns in half a second.
    slow->cost = 0.025;
    run(0.5);
    LiveHealthReport report = watch.check(*pipeline, *switches);
    EXPECT_GE(report.stats.backpressure.renderOverran, 14);
    EXPECT_EQ(report.quality, LiveQuality::halfRate);
    EXPECT_EQ(report.note, "The GPU is behind, so the stream stepped to 30fps. It steps back up on its own once things calm down.");
    EXPECT_EQ(pipeline->currentFPS(), 30);
    EXPECT_DOUBLE_EQ(clock->interval(), 1.0 / 30);
    EXPECT_EQ(report.line, "Watcher: Live.");

    // The same load fits 30 fps: thirty clean seconds, checked every half second, climb back.
    for (int checks = 0; checks < 70 && watch.ladder().quality != LiveQuality::full; ++checks) {
        run(0.5);
        report = watch.check(*pipeline, *switches);
    }
    EXPECT_EQ(pipeline->currentFPS(), 60);

    // 150 ms a frame is behind at either rate: two samples reach the bottom rung, where
    // click effects and motion are no longer drawn.
    slow->cost = 0.15;
    run(0.5);
    EXPECT_EQ(watch.check(*pipeline, *switches).quality, LiveQuality::halfRate);
    run(0.5);
    report = watch.check(*pipeline, *switches);
    EXPECT_EQ(report.quality, LiveQuality::minimalEffects);
    EXPECT_FALSE(switches->state().motionEffects);
    inputs->postPointer(std::pair{0.3, 0.3});
    inputs->postClick(0.3, 0.3);
    run(0.1);
    EXPECT_TRUE(slow->last.clicks.empty());
    ASSERT_TRUE(slow->last.cursor);
    EXPECT_EQ(slow->last.cursor->previousX, slow->last.cursor->x);

    // Frames were numbered without a gap and carried the rate they were made at.
    for (size_t i = 0; i < watcher->sequences.size(); ++i)
        ASSERT_EQ(watcher->sequences[i], static_cast<int64_t>(i));
    EXPECT_DOUBLE_EQ(watcher->durations.front(), 1.0 / 60);
    EXPECT_DOUBLE_EQ(watcher->durations.back(), 1.0 / 30);
    EXPECT_EQ(static_cast<int64_t>(watcher->sequences.size()), pipeline->stats().framesDelivered);
}

class LivePipelineSinksTest : public LivePipelineTest {
protected:
    std::vector<std::shared_ptr<LiveSink>> sinks() override { return {thrower, gone, hog, watcher, monitor}; }

    std::shared_ptr<ScriptedSink> thrower = std::make_shared<ScriptedSink>("Thrower");
    std::shared_ptr<ScriptedSink> gone = std::make_shared<ScriptedSink>("Gone");
    std::shared_ptr<ScriptedSink> hog = std::make_shared<ScriptedSink>("Hog");
    std::shared_ptr<MonitorLiveSink> monitor = std::make_shared<MonitorLiveSink>();
};

TEST_F(LivePipelineSinksTest, AFailingSinkNeverStopsTheOthersAndAHogIsNamed)
{
    thrower->throws = true;
    gone->failed = true;
    hog->holds = true;
    EXPECT_EQ(monitor->health(), LiveSinkHealth{LiveSinkHealth::Idle{}});
    for (int i = 0; i < 4; ++i) {
        pipeline->postScreen(screen);
        ASSERT_TRUE(clock->step());
    }
    EXPECT_EQ(watcher->sequences.size(), 4u);
    EXPECT_TRUE(gone->sequences.empty());
    LivePipelineStats stats = pipeline->stats();
    EXPECT_EQ(stats.framesDelivered, 4);
    EXPECT_EQ(stats.backpressure.sinkRefused, 4);
    EXPECT_EQ(stats.backpressure.poolExhausted, 0);

    // The hog keeps every frame it got: the pool runs dry and the tick renders nothing.
    clock->step();
    stats = pipeline->stats();
    EXPECT_EQ(stats.backpressure.poolExhausted, 1);
    EXPECT_EQ(stats.poolHog, "Hog");
    EXPECT_EQ(stats.backpressure.sourceStarved, 1); // no new screen picture came for it
    EXPECT_EQ(watcher->sequences.size(), 4u);
    hog->held.clear();
    clock->step();
    EXPECT_EQ(watcher->sequences.size(), 5u);
    EXPECT_EQ(clock->ticksDelivered(), 6);

    // The monitor shows the newest frame, small: the card in the middle has the screen's colour.
    auto latest = monitor->latest(48);
    ASSERT_TRUE(latest);
    EXPECT_EQ(latest->second, 4);
    EXPECT_EQ(latest->first.width, 48);
    EXPECT_EQ(latest->first.height, 27);
    const uint32_t middle = pixel(latest->first, 24, 13);
    EXPECT_EQ(middle, pixel(watcher->last.image, 96, 54));
    EXPECT_EQ(middle, 0xff3070c0u);
    EXPECT_EQ(healthLine(pipeline->sinkHealths()),
        "Thrower: Live. Gone: It stopped taking frames. Hog: Live. Watcher: Live. Monitor: Live.");

    pipeline->stop();
    EXPECT_EQ(watcher->closed, 1);
    EXPECT_FALSE(monitor->latest(48));
    EXPECT_FALSE(clock->step());
}

} // namespace
} // namespace plim
