#include "capture/array_mic.h"
#include "capture/capture_quality.h"
#include "capture/capture_session.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace plim {
namespace {

TEST(CaptureQualityTest, OutputSizesFitTheBoxTurnForPortraitAndAreEven)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    // {quality, the subject's size in points, its scale, the movie's size}
    const std::vector<std::tuple<const char*, Size, double, Size>> cases = {
        {"1080p", {3024, 1964}, 2, {1662, 1080}},
        {"native", {3024, 1964}, 2, {6048, 3928}},
        {"720p", {1080, 1920}, 1, {720, 1280}},
        {"native", {1281, 720}, 1, {1280, 720}},
        {"1080p", {1280, 720}, 1, {1280, 720}}, // never scaled up
        {"2160p", {1920, 1080}, nan, {1920, 1080}}, // an unusable scale counts as 1
        {"1440p", {5120, 1440}, 1, {2560, 720}},
        {"bogus", {800, 600}, 1, {800, 600}},
        {"native", {1.5, 600}, 1, {0, 0}},
        {"native", {2, 2}, 1, {2, 2}},
    };
    for (const auto& [quality, points, scale, expected] : cases) {
        Size out = CaptureQualityRules::evenSize(
            CaptureQualityRules::outputSize(CaptureQualityRules::parse(quality), points, scale));
        EXPECT_EQ(out, expected) << quality << " " << points.width << "x" << points.height;
    }
    EXPECT_EQ(CaptureQualityRules::evenSize({2e6, 100}), (Size{0, 0}));
    EXPECT_EQ(CaptureQualityRules::evenSize({nan, 100}), (Size{0, 0}));
}

TEST(CaptureQualityTest, FrameRateIsThirtyOnlyWhenAskedExactly)
{
    EXPECT_EQ(CaptureQualityRules::frameRate(30.0), 30);
    EXPECT_EQ(CaptureQualityRules::frameRate(24.0), 60);
    EXPECT_EQ(CaptureQualityRules::frameRate(30.5), 60);
    EXPECT_EQ(CaptureQualityRules::frameRate(std::nullopt), 60);
}

TEST(CaptureQualityTest, HeadlineLengths)
{
    for (auto [seconds, text] : std::vector<std::pair<double, std::string>>{{7.9, "0:07"}, {62, "1:02"},
             {3723, "1:02:03"}, {std::nan(""), "an unknown length"}, {-1, "an unknown length"}})
        EXPECT_EQ(CaptureSession::lengthText(seconds), text) << seconds;
}

ArrayMic::Buffer frames(std::vector<float> frame, int count)
{
    ArrayMic::Buffer b{{}, int(frame.size()), 48000};
    for (int i = 0; i < count; ++i)
        b.samples.insert(b.samples.end(), frame.begin(), frame.end());
    return b;
}

TEST(ArrayMicTest, TreatmentFoldsArraysAndLiftsThemWithinItsLimits)
{
    // {what, one frame of the input, the output's channels, its first sample, the gain}
    const std::vector<std::tuple<const char*, std::vector<float>, int, float, float>> cases = {
        {"stereo passes through", {0.1f, -0.2f}, 2, 0.1f, 1.0f},
        {"three capsules fold and lift to half scale", {0.01f, 0.02f, 0.03f}, 1, 0.5f, 25.0f},
        {"silence is not amplified", {0, 0, 0}, 1, 0.0f, 1.0f},
        {"a very quiet array is lifted by 126 at most", {0.001f, 0.001f, 0.001f}, 1, 0.126f, 126.0f},
        {"a loud array is not turned down", {0.9f, 0.9f, 0.9f, 0.9f}, 1, 0.9f, 1.0f},
    };
    for (const auto& [name, frame, channels, sample, gain] : cases) {
        ArrayMic::Treatment treatment;
        auto out = treatment.treated(frames(frame, 480));
        EXPECT_EQ(out.channels, channels) << name;
        EXPECT_NEAR(out.samples.at(0), sample, 1e-5) << name;
        EXPECT_NEAR(treatment.lastGain(), gain, 1e-3) << name;
    }
}

TEST(ArrayMicTest, GainRisesOnlyOnceLoudBuffersLeaveTheTenSecondWindow)
{
    ArrayMic::Treatment treatment;
    for (int i = 0; i < 11; ++i) // eleven seconds of loud speech, one-second buffers
        treatment.treated(frames({0.25f, 0.25f, 0.25f}, 48000));
    EXPECT_FLOAT_EQ(treatment.lastGain(), 2.0f);
    int quietSeconds = 0;
    for (; quietSeconds < 12 && treatment.lastGain() <= 2.0f; ++quietSeconds)
        treatment.treated(frames({0.05f, 0.05f, 0.05f}, 48000));
    EXPECT_EQ(quietSeconds, 11); // the last loud buffer ended ten seconds earlier
    EXPECT_FLOAT_EQ(treatment.lastGain(), 10.0f);
    // A lifted sample that would pass full scale is clamped.
    std::vector<float> loud{0.6f, -0.7f};
    ArrayMic::applyGain(2.0f, loud);
    EXPECT_EQ(loud, (std::vector<float>{1.0f, -1.0f}));
}

} // namespace
} // namespace plim
