// Plim Camera through v4l2loopback, with a stand-in playing the device: the pace of
// connecting, the refusals that fail the sink, the sentences, and the bytes written.

#include "live/camera_sinks.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

#include <deque>
#include <vector>

namespace plim {
namespace {

// The device as the test scripts it; the stand-in shares it with the test.
struct LoopbackScript {
    bool present = false;
    std::optional<LoopbackTrouble> trouble; // open() fails with this when set
    std::optional<int> formatError;          // setFormat() fails with this errno when set
    std::optional<CameraFormat> keeps;       // the format the device keeps whatever is asked
    size_t capacity = 2;                     // frames waiting for the reader before writes are refused
    bool lost = false;                       // the next write finds the device gone
    int opens = 0;
    bool isOpen = false;
    std::vector<CameraFormat> asked;
    std::deque<std::vector<uint8_t>> waiting; // written, not yet read
};

class StandInLoopback final : public LoopbackDevice {
public:
    explicit StandInLoopback(std::shared_ptr<LoopbackScript> script) : m_script(std::move(script)) {}

    std::expected<void, LoopbackTrouble> open(const std::string& label) override
    {
        EXPECT_EQ(label, "Plim Camera");
        ++m_script->opens;
        if (m_script->trouble)
            return std::unexpected(*m_script->trouble);
        if (!m_script->present)
            return std::unexpected(LoopbackTrouble{LoopbackTrouble::Kind::notInstalled, {}});
        m_script->isOpen = true;
        return {};
    }
    std::expected<CameraFormat, int> setFormat(const CameraFormat& format) override
    {
        EXPECT_TRUE(m_script->isOpen);
        m_script->asked.push_back(format);
        if (m_script->formatError)
            return std::unexpected(*m_script->formatError);
        return m_script->keeps.value_or(format);
    }
    Write write(std::span<const uint8_t> frame) override
    {
        if (!m_script->isOpen || m_script->lost) {
            m_script->lost = false;
            return Write::lost;
        }
        if (m_script->waiting.size() >= m_script->capacity)
            return Write::refused;
        m_script->waiting.emplace_back(frame.begin(), frame.end());
        return Write::taken;
    }
    void close() override { m_script->isOpen = false; }

private:
    std::shared_ptr<LoopbackScript> m_script;
};

struct Fixture {
    std::shared_ptr<LoopbackScript> script = std::make_shared<LoopbackScript>();
    ManualClock clock{1000};
    std::unique_ptr<LiveSink> sink = makeV4l2LoopbackSink({"Plim Camera", &clock}, std::make_unique<StandInLoopback>(script));

    void feed(int frames = 1)
    {
        for (int i = 0; i < frames; ++i)
            sink->consume({Image::allocate(320, 180), 0, 1.0 / 30, sequence++});
    }
    int64_t sequence = 0;
};

LiveSinkHealth running(int dropped) { return {LiveSinkHealth::Running{dropped}}; }
LiveSinkHealth opening() { return {LiveSinkHealth::Opening{}}; }

std::string loopbackFailure(const LiveSink& sink)
{
    const auto health = sink.health();
    const auto* failed = std::get_if<LiveSinkHealth::Failed>(&health.state);
    return failed ? failed->sentence : std::string("(not failed)");
}

TEST(CameraLoopback, RetriesEveryTwoSecondsWhileFramesAreDropped)
{
    Fixture f;
    EXPECT_EQ(f.sink->health(), LiveSinkHealth{LiveSinkHealth::Idle{}});
    f.feed();
    EXPECT_EQ(f.script->opens, 1);
    EXPECT_EQ(loopbackFailure(*f.sink), "Plim Camera is not installed. Load it once with sudo modprobe v4l2loopback "
                                "card_label=\"Plim Camera\" exclusive_caps=1 (from the v4l2loopback-dkms package), "
                                "and every video app gains a camera named Plim.");
    f.clock.advance(1.99);
    f.feed(3);
    EXPECT_EQ(f.script->opens, 1);
    f.clock.advance(0.01);
    f.feed();
    EXPECT_EQ(f.script->opens, 2);

    // The module is loaded: the next attempt, 2 s later, connects and the frame is taken;
    // every frame before it was dropped.
    f.script->present = true;
    f.clock.advance(1.9);
    f.feed();
    EXPECT_EQ(f.script->opens, 2);
    f.clock.advance(0.1);
    f.feed();
    EXPECT_EQ(f.script->opens, 3);
    EXPECT_EQ(f.sink->health(), running(6));
    EXPECT_EQ(f.script->asked, std::vector{requestedCameraFormat(320, 180, 30)});
    EXPECT_EQ(f.script->waiting.size(), 1u);

    // A device that goes away is let go and found again at the same pace.
    f.script->lost = true;
    f.feed();
    EXPECT_FALSE(f.script->isOpen);
    f.clock.advance(1);
    f.feed();
    EXPECT_EQ(f.script->opens, 3);
    f.clock.advance(1);
    f.feed();
    EXPECT_EQ(f.script->opens, 4);
    EXPECT_EQ(f.sink->health(), running(8));
}

TEST(CameraLoopback, FailsAfter120RefusalsInARowAndRecovers)
{
    Fixture f;
    f.script->present = true;
    f.script->capacity = 1;
    f.feed();
    EXPECT_EQ(f.sink->health(), running(0));
    f.feed(119);
    EXPECT_EQ(f.sink->health(), running(119));
    f.feed();
    EXPECT_EQ(loopbackFailure(*f.sink), "Plim Camera is not taking frames — the v4l2loopback device has stopped pulling. "
                                "Stop and go live again; if it persists, restart the computer.");
    // One frame taken ends the run of refusals.
    f.script->waiting.clear();
    f.feed();
    EXPECT_EQ(f.sink->health(), running(120));
    f.feed(119);
    EXPECT_EQ(f.sink->health(), running(239));

    // Closed, the sink is idle; reopened, it is opening until a frame is taken again.
    f.sink->close();
    EXPECT_EQ(f.sink->health(), LiveSinkHealth{LiveSinkHealth::Idle{}});
    EXPECT_FALSE(f.script->isOpen);
    f.clock.advance(2);
    f.feed(3);
    EXPECT_TRUE(f.script->isOpen);
    EXPECT_EQ(f.sink->health(), opening());
    f.script->waiting.clear();
    f.feed();
    EXPECT_EQ(f.sink->health(), running(242));
}

TEST(CameraLoopback, EachTroubleSaysWhatToDo)
{
    // {what opening the device meets, what setting its format meets, the sentence}
    const std::vector<std::tuple<std::optional<LoopbackTrouble>, std::optional<int>, std::string>> cases = {
        {LoopbackTrouble{LoopbackTrouble::Kind::loadedWithoutLabel, {}}, {},
            "Plim Camera is not installed: v4l2loopback is loaded without it. Load it once with sudo modprobe -r "
            "v4l2loopback && sudo modprobe v4l2loopback card_label=\"Plim Camera\" exclusive_caps=1, and every video "
            "app gains a camera named Plim."},
        {LoopbackTrouble{LoopbackTrouble::Kind::notAnOutput, "/dev/video4"}, {},
            "Plim Camera is installed but its inbox is missing — an old version may still be running. Restart the "
            "computer to finish the update."},
        {LoopbackTrouble{LoopbackTrouble::Kind::denied, "/dev/video4: Permission denied"}, {},
            "Plim may not write to Plim Camera (/dev/video4: Permission denied). Add yourself to the video group "
            "(sudo usermod -aG video $USER), log in again, then go live again."},
        {LoopbackTrouble{LoopbackTrouble::Kind::failed, "/dev/video4: Input/output error"}, {},
            "Plim Camera refused its frame queue (/dev/video4: Input/output error). Restarting the computer usually "
            "clears this."},
        {{}, 16,
            "Plim Camera would not start its inbox (error 16). Quit the apps using the camera, then go live again; a "
            "restart clears it if not."},
    };
    for (const auto& [trouble, formatError, sentence] : cases) {
        Fixture f;
        f.script->present = true;
        f.script->trouble = trouble;
        f.script->formatError = formatError;
        f.feed(2);
        EXPECT_EQ(loopbackFailure(*f.sink), sentence);
        EXPECT_FALSE(f.script->isOpen); // a device that failed to start is not held
        // Cleared, the next attempt connects and the sentence goes.
        f.script->trouble.reset();
        f.script->formatError.reset();
        f.clock.advance(2);
        f.feed();
        EXPECT_EQ(f.sink->health(), running(2));
    }
}

TEST(CameraLoopback, WritesTheFormatTheDeviceKeeps)
{
    // The device is held at NV12 640 x 480 by an earlier writer: the 16:9 canvas is fitted
    // into it between black bars.
    Fixture f;
    f.script->present = true;
    f.script->keeps = CameraFormat{fourccNv12, 640, 480, 30, 640, 640 * 480 * 3 / 2};
    f.sink->consume({testkit::solidImage(320, 180, 0xff0000), 0, 1.0 / 30, 0});
    ASSERT_EQ(f.script->waiting.size(), 1u);
    const std::vector<uint8_t>& frame = f.script->waiting.front();
    ASSERT_EQ(frame.size(), 640u * 480 * 3 / 2);
    EXPECT_EQ(frame[240 * 640 + 320], 81); // red in the middle
    EXPECT_EQ(frame[10 * 640 + 320], 16);  // black above: 360 lines of picture sit between 60-line bars
    EXPECT_EQ(frame[470 * 640 + 320], 16);
}

TEST(CameraLoopback, TheSystemDeviceIsFoundByItsLabel)
{
    testkit::TempDir sys;
    const LoopbackPlaces places{sys / "class", sys / "dev", sys / "module"};
    std::filesystem::create_directories(places.devices);
    auto device = [&](const std::string& name, const std::string& label) {
        std::filesystem::create_directories(places.videoClass / name);
        testkit::writeText(places.videoClass / name / "name", label);
        testkit::writeText(places.devices / name, "");
    };
    device("video0", "Integrated Camera: Integrated C\n");
    device("video3", "Plim Camera 2\n");
    device("v4l-subdev0", "Plim Camera\n");
    auto loopback = LoopbackDevice::system(places);
    EXPECT_EQ(loopback->open("Plim Camera").error().kind, LoopbackTrouble::Kind::notInstalled);
    std::filesystem::create_directories(places.module);
    EXPECT_EQ(loopback->open("Plim Camera").error().kind, LoopbackTrouble::Kind::loadedWithoutLabel);

    // Labelled devices are tried in number order; these nodes are plain files, which no
    // V4L2 request reaches, so the last one tried is named.
    device("video10", "Plim Camera\n");
    device("video2", "Plim Camera\n");
    EXPECT_EQ(videoDevicesLabelled(places.videoClass, "Plim Camera"), (std::vector<std::string>{"video2", "video10"}));
    EXPECT_EQ(loopback->open("Plim Camera").error(),
        (LoopbackTrouble{LoopbackTrouble::Kind::failed, (places.devices / "video10").string() + ": Inappropriate ioctl for device"}));
    std::filesystem::remove(places.devices / "video10");
    EXPECT_EQ(loopback->open("Plim Camera").error(),
        (LoopbackTrouble{LoopbackTrouble::Kind::failed, (places.devices / "video10").string() + ": No such file or directory"}));
    // Nothing is open: nothing is written.
    const uint8_t frame[4] = {};
    EXPECT_EQ(loopback->write(frame), LoopbackDevice::Write::lost);
    EXPECT_FALSE(loopback->setFormat(requestedCameraFormat(320, 180, 30)));
}

} // namespace
} // namespace plim
