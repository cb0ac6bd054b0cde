// The plim program as a desktop application: how it starts.

#include "testkit/testkit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace plim;
using namespace plim::testkit;
using ::testing::HasSubstr;

TEST(AppStart, WithoutADisplayItSaysSoAndChangesNothing)
{
    XdgSandbox sandbox;
    auto result = runCommand({builtExecutable("plim").string()},
        {"HOME=" + sandbox.home().string(), "DISPLAY=", "WAYLAND_DISPLAY=", "PLIM_LOG=stderr"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("Plim could not open its windows because this session has no display"));
}
