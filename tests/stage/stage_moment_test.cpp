#include "stage/stage.h"

#include <gtest/gtest.h>

namespace plim {
namespace {

CameraPicture picture(int width, int height, int stride, size_t bytes)
{
    return {width, height, stride, std::make_shared<const std::vector<uint8_t>>(bytes, uint8_t{0x7f})};
}

TEST(CameraPictureTest, UsableOnlyWhenThePixelsCoverEveryRow)
{
    EXPECT_TRUE(picture(4, 2, 16, 32).isUsable());
    EXPECT_TRUE(picture(4, 2, 20, 40).isUsable()); // padded rows
    EXPECT_FALSE(picture(4, 2, 16, 31).isUsable());
    EXPECT_FALSE(picture(4, 2, 12, 24).isUsable()); // rows narrower than the width
    EXPECT_FALSE(picture(0, 2, 16, 32).isUsable());
    EXPECT_FALSE(picture(4, -1, 16, 32).isUsable());
    EXPECT_FALSE((CameraPicture{4, 2, 16, nullptr}).isUsable());
}

TEST(StageMomentTest, CameraFramesCompareByPicture)
{
    StageMoment a;
    a.cameraFrame = picture(2, 2, 8, 16);
    StageMoment b = a;
    EXPECT_EQ(a, b);
    // The same pixel values in another buffer are another picture.
    b.cameraFrame = picture(2, 2, 8, 16);
    EXPECT_NE(a, b);
}

} // namespace
} // namespace plim
