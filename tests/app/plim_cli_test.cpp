// The plim and plimctl executables, run as real processes in a sandboxed home.
#include "testkit/testkit.h"

#include <gtest/gtest.h>

using namespace plim::testkit;

namespace {

// The last non-empty line of a text (the failure line follows any log lines on stderr).
std::string lastLine(const std::string& text)
{
    auto end = text.find_last_not_of('\n');
    if (end == std::string::npos)
        return "";
    auto start = text.rfind('\n', end);
    return text.substr(start == std::string::npos ? 0 : start + 1, end + 1 - (start == std::string::npos ? 0 : start + 1));
}

const std::string trackJson = R"({"displayX":0,"displayY":0,"displayWidth":1920,"displayHeight":1080,"scale":2,
 "samples":[{"t":0,"x":10,"y":20,"k":0},{"t":60000,"x":50,"y":50,"k":0}],"clicks":[{"t":3000,"x":100,"y":100}]})";

struct CliTest : ::testing::Test {
    XdgSandbox sandbox;
    TempDir dir;
    std::vector<std::string> env = {"PLIM_LOG=stderr", "HOME=" + sandbox.home().string(),
        "XDG_CONFIG_HOME=" + (sandbox.home() / ".config").string()};

    fs::path plim(const std::string& base, bool withTrack = true)
    {
        fs::path movie = dir / (base + ".mov");
        writeText(movie, "movie");
        if (withTrack)
            writeText(dir / (base + ".cursor.json"), trackJson);
        return movie;
    }
    CommandResult plimRun(std::vector<std::string> args)
    {
        args.insert(args.begin(), builtExecutable("plim").string());
        return runCommand(args, env);
    }
    CommandResult ctl(std::vector<std::string> args)
    {
        args.insert(args.begin(), builtExecutable("plimctl").string());
        return runCommand(args, env);
    }
};

TEST_F(CliTest, RenderFailsWithTheFailureFormWhenTheTrackIsMissingOrBroken)
{
    auto movie = plim("B", false);
    auto missing = plimRun({"--stage", movie.string()});
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(lastLine(missing.err).starts_with("staging failed: There is no pointer track")) << missing.err;
    EXPECT_EQ(missing.out, "");

    writeText(dir / "B.cursor.json", "{\"displayX\": 0, \"samples\": []}");
    auto broken = plimRun({"--reframe", movie.string()});
    EXPECT_EQ(broken.status, 1);
    EXPECT_TRUE(lastLine(broken.err).starts_with("reframing failed: ")) << broken.err;
    EXPECT_EQ(readText(dir / "B.cursor.json"), "{\"displayX\": 0, \"samples\": []}");
}

TEST_F(CliTest, StageWinsOverReframeAndReadsThePlanBesideTheMovie)
{
    auto a = plim("A");
    auto b = plim("B");
    writeText(dir / "B.edits.json", R"({"trimOut": 50, "skips": [{"span": {"start": 10, "end": 20}}]})");
    auto result = plimRun({"--reframe", a.string(), "--stage", b.string()});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("stage " + b.string()), std::string::npos) << result.out;
    EXPECT_EQ(result.out.find(a.string()), std::string::npos);
    EXPECT_NE(result.out.find("skip: 10.000s to 20.000s at 4x"), std::string::npos) << result.out;
    // 50 s kept, of which 10 s play four times as fast.
    EXPECT_NE(result.out.find("output: 42.500s"), std::string::npos) << result.out;
    EXPECT_NE(result.err.find("automatic updates are off in this process because this process is a headless render"),
        std::string::npos);
}

TEST_F(CliTest, WithoutARenderPlimRunsStartUpAndSaysThereIsNoInterface)
{
    auto result = plimRun({"--stage"});
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.out.find("desktop interface is not part of this build"), std::string::npos);
    EXPECT_NE(result.err.find("Plim: automatic updates are off in this process because this process is not the installed app"),
        std::string::npos)
        << result.err;
}

TEST_F(CliTest, PlanCommandReportsNoticesAndLeavesADamagedFileAlone)
{
    auto movie = plim("B");
    const std::string damaged = R"({"trimIn": "soon", "cuts": [{"id": "x"}], "zooms": []})";
    writeText(dir / "B.edits.json", damaged);
    auto result = ctl({"plan", movie.string(), "--duration", "30"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("recording: 30.000s (given)"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("output: 30.000s"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("notice: "), std::string::npos) << result.out;
    EXPECT_EQ(readText(dir / "B.edits.json"), damaged);

    writeText(dir / "B.edits.json", "{ not json");
    auto unreadable = ctl({"plan", movie.string(), "--json"});
    EXPECT_EQ(unreadable.status, 0);
    EXPECT_NE(unreadable.out.find("\"planFromFile\": false"), std::string::npos) << unreadable.out;
    EXPECT_EQ(readText(dir / "B.edits.json"), "{ not json");
}

TEST_F(CliTest, PlanProposesTheAutomaticEditAndWritesItOnlyOverUsableEdits)
{
    auto demo = ctl({"demo", (dir / "demo").string()});
    ASSERT_EQ(demo.status, 0) << demo.err;
    fs::path movie = dir / "demo" / "Demo.mov";
    EXPECT_EQ(demo.out, movie.string() + "\n");

    // No edits yet: the automatic edit is shown, trimming the idle ends of the demo.
    auto proposed = ctl({"plan", movie.string()});
    EXPECT_EQ(proposed.status, 0) << proposed.err;
    EXPECT_NE(proposed.out.find("automatic edit: "), std::string::npos) << proposed.out;
    EXPECT_NE(proposed.out.find("trim: "), std::string::npos) << proposed.out;
    EXPECT_NE(proposed.out.find("3 zooms where you clicked"), std::string::npos) << proposed.out;
    EXPECT_FALSE(fs::exists(dir / "demo" / "Demo.edits.json"));

    // An edits file that cannot be read is never replaced, even when asked to write.
    writeText(dir / "demo" / "Demo.edits.json", "{\"version\": 2.5}");
    auto refused = ctl({"plan", movie.string(), "--write"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("was left exactly as it is"), std::string::npos) << refused.err;
    EXPECT_EQ(readText(dir / "demo" / "Demo.edits.json"), "{\"version\": 2.5}");

    // Over usable edits, --auto --write replaces the plan and keeps the other keys.
    writeText(dir / "demo" / "Demo.edits.json", R"({"version": 2, "captionsFile": "Demo.captions.json", "trimIn": 1})");
    auto written = ctl({"plan", movie.string(), "--auto", "--write"});
    EXPECT_EQ(written.status, 0) << written.err;
    auto again = ctl({"plan", movie.string(), "--json"});
    EXPECT_NE(again.out.find("\"planFromFile\": true"), std::string::npos);
    std::string edits = readText(dir / "demo" / "Demo.edits.json");
    EXPECT_NE(edits.find("\"captionsFile\": \"Demo.captions.json\""), std::string::npos) << edits;
    EXPECT_NE(edits.find("\"writtenBy\": \"Plim "), std::string::npos) << edits;
    EXPECT_EQ(edits.find("\"trimIn\": 1\n"), std::string::npos) << edits;
}

TEST_F(CliTest, PlimctlRefusesUnknownCommandsAndBadOptionsWithASentence)
{
    auto unknown = ctl({"frobnicate"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_NE(unknown.err.find("there is no command \"frobnicate\""), std::string::npos);
    auto badDuration = ctl({"plan", "B.mov", "--duration", "soon"});
    EXPECT_EQ(badDuration.status, 1);
    EXPECT_NE(badDuration.err.find("is not a length in seconds"), std::string::npos);
    for (const char* unnamed : {"", "/tmp/", "folder/"}) {
        auto none = ctl({"plan", unnamed});
        EXPECT_EQ(none.status, 1);
        EXPECT_EQ(none.err, "plimctl plan: No movie was named (the path \"" + std::string(unnamed)
                + "\" ends without a file name), so nothing was read or changed. Name a plim's movie, for example "
                  "~/Videos/Plim/B.mov.\n");
    }
    auto help = ctl({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("plan"), std::string::npos);
}

} // namespace
