// What Plim Camera asks a V4L2 device for, how it settles on the answer, and the pictures
// it writes: BT.601 limited-range YUYV and NV12 from BGRA.

#include "live/camera_format.h"
#include "live/loopback_device.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

namespace plim {
namespace {

using testkit::solidImage;

void paint(Image& image, int x, int y, uint32_t rgb)
{
    reinterpret_cast<uint32_t*>(image.row(y))[x] = 0xff000000u | rgb;
}

TEST(CameraFormat, AsksForYuyvAtTheCanvasSizeWithinTheLargestPicture)
{
    EXPECT_EQ(requestedCameraFormat(1920, 1080, 60), (CameraFormat{fourccYuyv, 1920, 1080, 60, 3840, 1920 * 1080 * 2}));
    // A 16:10 display at full size is shrunk to 1080 lines, its shape kept.
    EXPECT_EQ(requestedCameraFormat(2560, 1600, 59.94), (CameraFormat{fourccYuyv, 1728, 1080, 60, 3456, 3456 * 1080}));
    // Odd sides become even (both layouts pair pixels).
    const CameraFormat odd = requestedCameraFormat(641, 359, 30);
    EXPECT_EQ(odd.width % 2, 0);
    EXPECT_EQ(odd.height % 2, 0);
    EXPECT_LE(std::abs(odd.width - 641), 1);
    EXPECT_LE(std::abs(odd.height - 359), 1);
}

TEST(CameraFormat, SettlesOnWhatTheDeviceKeeps)
{
    // A device that agrees.
    std::vector<CameraFormat> asked;
    auto agree = [&](const CameraFormat& wanted) -> Result<CameraFormat> {
        asked.push_back(wanted);
        return wanted;
    };
    EXPECT_EQ(*negotiateCameraFormat(1280, 720, 30, agree), requestedCameraFormat(1280, 720, 30));
    EXPECT_EQ(asked.size(), 1u);

    // A device already set to 640 x 480 with padded lines and no rate: filled at its size.
    auto keeps = [](const CameraFormat&) -> Result<CameraFormat> {
        return CameraFormat{fourccYuyv, 640, 480, 0, 1536, 0};
    };
    EXPECT_EQ(*negotiateCameraFormat(1280, 720, 30, keeps), (CameraFormat{fourccYuyv, 640, 480, 30, 1536, 1536 * 480}));

    // A device that answers MJPEG is asked for NV12, and NV12 is taken.
    asked.clear();
    auto mjpegFirst = [&](const CameraFormat& wanted) -> Result<CameraFormat> {
        asked.push_back(wanted);
        if (wanted.pixels == fourccYuyv)
            return CameraFormat{fourcc('M', 'J', 'P', 'G'), wanted.width, wanted.height, 30, 0, 0};
        return wanted;
    };
    const auto nv12 = negotiateCameraFormat(1280, 720, 30, mjpegFirst);
    ASSERT_TRUE(nv12);
    EXPECT_EQ(nv12->pixels, fourccNv12);
    EXPECT_EQ(nv12->frameBytes, 1280 * 720 * 3 / 2);
    ASSERT_EQ(asked.size(), 2u);
    EXPECT_EQ(asked[1].pixels, fourccNv12);

    // What cannot be written fails with a sentence that says how to reset the device.
    auto onlyMjpeg = [](const CameraFormat& wanted) -> Result<CameraFormat> {
        return CameraFormat{fourcc('M', 'J', 'P', 'G'), wanted.width, wanted.height, 30, 0, 0};
    };
    const auto refused = negotiateCameraFormat(1280, 720, 30, onlyMjpeg);
    ASSERT_FALSE(refused);
    EXPECT_NE(refused.error().sentence.find("MJPG"), std::string::npos);
    EXPECT_NE(refused.error().sentence.find("sudo modprobe -r v4l2loopback && " + loopbackLoadCommand("Plim Camera")),
        std::string::npos);
    auto oddWidth = [](const CameraFormat&) -> Result<CameraFormat> { return CameraFormat{fourccYuyv, 641, 480, 30, 0, 0}; };
    const auto odd = negotiateCameraFormat(1280, 720, 30, oddWidth);
    ASSERT_FALSE(odd);
    EXPECT_NE(odd.error().sentence.find("641 x 480"), std::string::npos);
    // The device's own refusal comes through as it was worded.
    auto busy = [](const CameraFormat&) -> Result<CameraFormat> { return fail("Busy."); };
    EXPECT_EQ(negotiateCameraFormat(1280, 720, 30, busy).error().sentence, "Busy.");
}

TEST(CameraFormat, ConvertsBgraToBt601LimitedRange)
{
    const std::vector<std::pair<uint32_t, std::array<int, 3>>> known = {
        {0xffffff, {235, 128, 128}},
        {0x000000, {16, 128, 128}},
        {0xff0000, {81, 90, 240}},
        {0x00ff00, {145, 54, 34}},
        {0x0000ff, {41, 240, 110}},
    };
    for (const auto& [rgb, yuv] : known) {
        SCOPED_TRACE(testing::Message() << std::hex << rgb);
        const Image image = solidImage(2, 2, rgb);
        std::vector<uint8_t> yuyv(2 * 2 * 2);
        ASSERT_TRUE(writeCameraFrame(image, withLayout({fourccYuyv, 2, 2, 30, 0, 0}), yuyv));
        EXPECT_EQ(
            (std::vector<int>{yuyv[0], yuyv[1], yuyv[2], yuyv[3]}), (std::vector<int>{yuv[0], yuv[1], yuv[0], yuv[2]}));
        std::vector<uint8_t> nv12(2 * 2 * 3 / 2);
        ASSERT_TRUE(writeCameraFrame(image, withLayout({fourccNv12, 2, 2, 30, 0, 0}), nv12));
        EXPECT_EQ((std::vector<int>(nv12.begin(), nv12.end())),
            (std::vector<int>{yuv[0], yuv[0], yuv[0], yuv[0], yuv[1], yuv[2]}));
    }

    // Chroma is the mean of the pixels it covers (a pair in YUYV, a 2 x 2 block in NV12);
    // padding at the end of lines is left alone.
    Image mixed = solidImage(4, 2, 0xff0000);
    paint(mixed, 1, 0, 0x0000ff);
    paint(mixed, 1, 1, 0x0000ff);
    paint(mixed, 2, 0, 0xffffff);
    const int padded = 12;
    std::vector<uint8_t> yuyv(padded * 2, 0xAA);
    ASSERT_TRUE(writeCameraFrame(mixed, {fourccYuyv, 4, 2, 30, padded, padded * 2}, yuyv));
    // Red beside blue: U = 128 + (90 - 128 + 240 - 128) / 2, V = 128 + (240 - 128 + 110 - 128) / 2.
    EXPECT_EQ((std::vector<int>(yuyv.begin(), yuyv.begin() + 4)), (std::vector<int>{81, 165, 41, 175}));
    EXPECT_EQ(yuyv[8], 0xAA);
    EXPECT_EQ(yuyv[padded + 11], 0xAA);
    std::vector<uint8_t> nv12(padded * 3, 0xAA);
    ASSERT_TRUE(writeCameraFrame(mixed, {fourccNv12, 4, 2, 30, padded, padded * 3}, nv12));
    EXPECT_EQ((std::vector<int>{nv12[0], nv12[1], nv12[2], nv12[3], nv12[padded], nv12[padded + 1]}),
        (std::vector<int>{81, 41, 235, 81, 81, 41}));
    EXPECT_EQ((std::vector<int>{nv12[2 * padded], nv12[2 * padded + 1]}), (std::vector<int>{165, 175}));
    // Three reds and a white: U = 128 + (3 * -38 + 0) / 4 rounded, V = 128 + (3 * 112) / 4.
    EXPECT_EQ((std::vector<int>{nv12[2 * padded + 2], nv12[2 * padded + 3]}), (std::vector<int>{100, 212}));
    EXPECT_EQ(nv12[4], 0xAA);
    EXPECT_EQ(nv12[2 * padded + 4], 0xAA);

    // A picture or buffer of another size is not written.
    EXPECT_FALSE(writeCameraFrame(mixed, withLayout({fourccYuyv, 6, 2, 30, 0, 0}), yuyv));
    std::vector<uint8_t> small(10);
    EXPECT_FALSE(writeCameraFrame(mixed, withLayout({fourccYuyv, 4, 2, 30, 0, 0}), small));
}

} // namespace
} // namespace plim
