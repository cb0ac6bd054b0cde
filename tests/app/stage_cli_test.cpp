#include "app/app_runtime.h"
#include "app/stage_cli.h"

#include <gtest/gtest.h>

using namespace plim;

TEST(StageCLI, RequestedRenderPrefersStageAndIgnoresATrailingOption)
{
    using Args = std::vector<std::string>;
    EXPECT_EQ(StageCLI::requestedRender(Args{"plim", "--reframe", "a.mov", "--stage", "b.mov"}),
        (RenderRequest{"b.mov", false}));
    EXPECT_EQ(StageCLI::requestedRender(Args{"plim", "--reframe", "a.mov"}), (RenderRequest{"a.mov", true}));
    EXPECT_EQ(StageCLI::requestedRender(Args{"plim", "--stage"}), std::nullopt);
    // A lone trailing --stage does not hide a usable --reframe before it.
    EXPECT_EQ(StageCLI::requestedRender(Args{"plim", "--reframe", "a.mov", "--stage"}), (RenderRequest{"a.mov", true}));
    EXPECT_EQ(StageCLI::requestedRender(Args{"plim", "--verbose", "x"}), std::nullopt);
    // Element 0 is scanned too, and the first usable occurrence wins.
    EXPECT_EQ(StageCLI::requestedRender(Args{"--stage", "first.mov", "--stage", "second.mov"}),
        (RenderRequest{"first.mov", false}));
}

TEST(StageCLI, ProgressTruncatesTowardZero)
{
    EXPECT_EQ(StageCLI::progressLine("staging", 0.999), "staging 99%");
    EXPECT_EQ(StageCLI::progressLine("staging", 0.42), "staging 42%");
    EXPECT_EQ(StageCLI::progressLine("reframing", 1.0), "reframing 100%");
    EXPECT_EQ(StageCLI::progressLine("reframing", 0.0), "reframing 0%");
}

TEST(StageCLI, SummaryLineAndTrimSuffix)
{
    RenderSummary s;
    s.wallSeconds = 3.24;
    s.movieDuration = 60;
    s.outputDuration = 41.46;
    s.zooms = 3;
    s.activeSkips = 2;
    s.cuts = 1;
    EXPECT_EQ(StageCLI::summaryLine(s), "render: 3.2s for 60.0s of plim · out 41.5s · 3 zooms · 2 skips · 1 cuts");
    s.trimOut = 12.0;
    EXPECT_EQ(StageCLI::summaryLine(s),
        "render: 3.2s for 60.0s of plim · out 41.5s · 3 zooms · 2 skips · 1 cuts · trim 0.0–12.0s");
    EXPECT_EQ(StageCLI::trimSuffix(2.5, std::nullopt, 60), " · trim 2.5–60.0s");
    EXPECT_EQ(StageCLI::trimSuffix(std::nullopt, std::nullopt, 60), "");
    EXPECT_EQ(StageCLI::failureLine("staging", "The movie is gone."), "staging failed: The movie is gone.");
}

TEST(AppRuntime, InstalledOnlyFromThePrefixBinFolder)
{
    EXPECT_TRUE(AppRuntime::isBundledExecutable("/usr/local/bin/plim", "/usr/local"));
    EXPECT_FALSE(AppRuntime::isBundledExecutable("/work/main/build/src/plim", "/usr/local"));
    EXPECT_FALSE(AppRuntime::isBundledExecutable("/usr/local/bin/sub/plim", "/usr/local"));
    EXPECT_FALSE(AppRuntime::isBundledExecutable("", "/usr/local"));
    // The test binary itself is a build-tree binary.
    EXPECT_FALSE(AppRuntime::isBundledApp());
}

TEST(AppRuntime, UpdaterHoldReasonsInOrder)
{
    EXPECT_EQ(AppRuntime::updaterHold(true, true, "/usr/bin/plim"),
        "this process is a headless render (--stage / --reframe)");
    EXPECT_EQ(AppRuntime::updaterHold(false, true, "/usr/bin/plim"), std::nullopt);
    EXPECT_EQ(AppRuntime::updaterHold(false, false, "/tmp/b/plim"),
        "this process is not the installed app (the executable is /tmp/b/plim)");
    EXPECT_EQ(AppRuntime::updaterHold(std::vector<std::string>{"plim", "--stage", "x.mov"}),
        "this process is a headless render (--stage / --reframe)");
}
