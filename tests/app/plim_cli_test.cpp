// The plim and plimctl executables, run as real processes in a sandboxed home.
#include "app/app_runtime.h"
#include "app/stage_cli.h"
#include "base/json.h"
#include "capture/capture.h"
#include "testkit/test_movies.h"
#include "testkit/testkit.h"

#include <gmock/gmock.h>
#include <cctype>
#include <gtest/gtest.h>

using namespace plim;
using namespace plim::testkit;
using testing::HasSubstr;

namespace {

// The last non-empty line of a text (the failure line follows any log lines on stderr).
std::string lastLine(const std::string& text)
{
    const auto end = text.find_last_not_of('\n');
    if (end == std::string::npos)
        return "";
    const auto start = text.rfind('\n', end) + 1; // npos + 1 is 0: the text's first line
    return text.substr(start, end + 1 - start);
}

struct CliTest : ::testing::Test {
    XdgSandbox sandbox;
    TempDir dir;
    std::vector<std::string> env = {"PLIM_LOG=stderr", "HOME=" + sandbox.home().string(),
        "XDG_CONFIG_HOME=" + (sandbox.home() / ".config").string()};

    CommandResult plimRun(std::vector<std::string> args) { return runBuilt("plim", std::move(args), env); }
    CommandResult ctl(std::vector<std::string> args) { return runBuilt("plimctl", std::move(args), env); }
    // A test movie with a pointer track, in the test's folder.
    fs::path trackedMovie(const std::string& name = "B.mov")
    {
        EXPECT_TRUE(writeTestMovie(dir / name, TestMovie{}));
        EXPECT_TRUE(testTrack(TestMovie{}).write(dir / name));
        return dir / name;
    }
};

TEST_F(CliTest, StageWinsOverReframeRendersWithThePlanBesideTheMovieAndWritesItBack)
{
    trackedMovie("A.mov");
    trackedMovie("B.mov");
    writeText(dir / "B.edits.json", R"({"trimOut": 0.5})");
    auto result = plimRun({"--reframe", (dir / "A.mov").string(), "--stage", (dir / "B.mov").string()});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("staging 0%\n"));
    EXPECT_THAT(result.out, HasSubstr("staging 100%\n"));
    EXPECT_THAT(result.out, HasSubstr("staged: " + (dir / "B.staged.mov").string() + "\n"));
    EXPECT_THAT(result.out, HasSubstr(" for 3.0s of plim · out 0.5s · 0 zooms · 0 skips · 0 cuts · trim 0.0–0.5s\n"));
    EXPECT_TRUE(lastLine(result.out).starts_with("render: ")) << result.out;
    EXPECT_FALSE(fs::exists(dir / "A.staged.mov"));
    EXPECT_FALSE(fs::exists(dir / "A.reframe.mp4"));
    EXPECT_THAT(
        result.err, HasSubstr("automatic updates are off in this process because this process is a headless render"));

    EXPECT_EQ(ffprobe(dir / "B.staged.mov").frames, 30);
    // The plan used is written back as the plim's edits.
    EXPECT_THAT(readText(dir / "B.edits.json"), HasSubstr("\"trimOut\": 0.5"));
    EXPECT_THAT(readText(dir / "B.edits.json"), HasSubstr("\"writtenBy\""));

    // A look that does not speed up dead air plays the skip at normal speed, and the skip
    // goes back into the edits as the user left it.
    writeText(dir / "B.edits.json",
        R"({"skips": [{"span": {"start": 0.5, "end": 2.5}, "keep": false, "rate": 4}], "look": {"deadAir": false}})");
    auto slow = plimRun({"--stage", (dir / "B.mov").string()});
    ASSERT_EQ(slow.status, 0) << slow.err;
    EXPECT_THAT(slow.out, HasSubstr(" out 3.0s · 0 zooms · 0 skips"));
    EXPECT_EQ(ffprobe(dir / "B.staged.mov").frames, 180);
    EXPECT_THAT(readText(dir / "B.edits.json"), HasSubstr("\"keep\": false"));

    // A movie that cannot be read: the failure form, and the plim exactly as it was.
    writeText(dir / "A.mov", "not a movie");
    auto before = folderContents(dir.path());
    auto failed = plimRun({"--reframe", (dir / "A.mov").string()});
    EXPECT_EQ(failed.status, 1);
    EXPECT_TRUE(lastLine(failed.err).starts_with("reframing failed: A.mov is not a movie Plim can read ("))
        << failed.err;
    EXPECT_EQ(folderContents(dir.path()), before);

    // Without a pointer track: the staging failure form.
    fs::remove(dir / "B.cursor.json");
    auto missing = plimRun({"--stage", (dir / "B.mov").string()});
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(lastLine(missing.err).starts_with("staging failed: There is no pointer track")) << missing.err;
    EXPECT_EQ(missing.out, "");
}

TEST_F(CliTest, PlimctlStageRendersAFramePictureAndTheMovieWritingNothingElse)
{
    const fs::path movie = trackedMovie();
    writeText(dir / "B.edits.json", R"({"trimIn": 2, "trimOut": 2.5})");
    auto before = folderContents(dir.path());

    const std::vector<std::string> pngArgs = {"stage", movie.string(), "--backdrop", "#102030", "--size", "720",
        "--frame", "0.2", "--png", (dir / "out" / "f.png").string()};
    EXPECT_EQ(ctl(pngArgs).status, 1) << "a folder that does not exist is refused";
    fs::create_directories(dir / "out");
    auto png = ctl(pngArgs);
    ASSERT_EQ(png.status, 0) << png.err;
    EXPECT_EQ(readText(dir / "out" / "f.png").substr(1, 3), "PNG");

    auto staged = ctl({"stage", movie.string(), "--size", "720", "--click-style", "pulse", "--output",
        (dir / "out" / "s.mp4").string()});
    ASSERT_EQ(staged.status, 0) << staged.err;
    EXPECT_EQ(staged.out, "staged: " + (dir / "out" / "s.mp4").string() + "\n");
    auto probe = ffprobe(dir / "out" / "s.mp4");
    EXPECT_EQ(probe.height, 720);
    EXPECT_EQ(probe.frames, 30);

    fs::create_symlink(movie, dir / "link.mov");
    fs::create_directory(dir / "sub");
    for (const auto& [options, says] :
        std::vector<std::pair<std::vector<std::string>, std::string>>{{{"--size", "900"}, "is not an output size"},
            {{"--click-style", "sparkle"}, "is not a choice for --click-style"},
            {{"--shape", "4:3"}, "is not a choice for --shape"},
            {{"--frame", "soon", "--png", "x.png"}, "--frame takes a time in seconds"},
            // Outputs that are the plim's own files, however they are named, are refused first.
            {{"--output", movie.string()}, "is the plim's own recording, so nothing was written"},
            {{"--output", (dir / "link.mov").string()}, "is the plim's own recording"},
            {{"--output", (dir / "sub" / ".." / "B.cursor.json").string()},
                "one of the plim's own files (B.cursor.json)"},
            {{"--frame", "0.2", "--png", (dir / "B.edits.json").string()},
                "one of the plim's own files (B.edits.json)"},
            {{"--frame", "1000", "--png", "x.png"}, "The output is 0.5 s long, so it has no frame at 1000.0 s."},
            {{"--padding", "100000"}, "Use a whole number from 0 to 400"},
            {{"--backdrop", "#zzzzzz"}, "the backdrop \"#zzzzzz\" cannot be used. \"#zzzzzz\" is not a colour"}}) {
        std::vector<std::string> args = {"stage", movie.string()};
        args.insert(args.end(), options.begin(), options.end());
        auto refused = ctl(args);
        EXPECT_EQ(refused.status, 1);
        EXPECT_THAT(refused.err, HasSubstr(says));
    }
    fs::remove_all(dir / "out");
    fs::remove_all(dir / "sub");
    fs::remove(dir / "link.mov");
    EXPECT_EQ(folderContents(dir.path()), before);

    // The look an edits file carries dresses the frame: two paddings, two pictures.
    auto dressed = [&](const std::string& padding) {
        writeText(dir / "B.edits.json", R"({"trimIn": 2, "trimOut": 2.5, "look": {"padding": )" + padding + "}}");
        const fs::path png = dir / ("padding" + padding + ".png");
        auto run = ctl({"stage", movie.string(), "--size", "720", "--frame", "0.2", "--png", png.string()});
        EXPECT_EQ(run.status, 0) << run.err;
        return readText(png);
    };
    EXPECT_NE(dressed("0.3"), dressed("0.02"));
}

TEST_F(CliTest, AOneFrameASecondMovieUnderALongerPointerTrackStagesWhole)
{
    // Two pictures a second apart, and a pointer track that runs on for 20 s: the pointer
    // jiggles in place (busy, never idle), sets off at 5 s and clicks at 6 s. Sized by the
    // track, the automatic edit would trim everything before 4.7 s, the whole movie.
    const fs::path movie = dir / "B.mov";
    ASSERT_TRUE(writeTestMovie(movie, TestMovie{.fps = 1, .duration = 2, .sound = false}));
    CursorTrack track{.displayWidth = 320, .displayHeight = 200};
    for (int i = 0; i <= 1200; ++i)
        track.samples.push_back({std::llround(i * 1000.0 / 60), i < 300 ? 160.0 + (i % 12 < 6) * 5 : i - 135.0, 100, 0});
    track.clicks.push_back({6000, 200, 100});
    ASSERT_TRUE(track.write(movie));
    auto staged = ctl({"stage", movie.string(), "--size", "720", "--output", (dir / "s.mp4").string()});
    ASSERT_EQ(staged.status, 0) << staged.err;
    auto probe = ffprobe(dir / "s.mp4");
    EXPECT_NEAR(probe.duration, 2, 0.05);
    EXPECT_EQ(probe.frames, 120);

    // An edit made for a longer recording says so.
    writeText(dir / "B.edits.json", R"({"trimIn": 5, "trimOut": 8})");
    auto past = ctl({"stage", movie.string(), "--size", "720", "--output", (dir / "t.mp4").string()});
    EXPECT_EQ(past.status, 1);
    EXPECT_THAT(past.err, HasSubstr("B.mov lasts 2.00 s, and this edit keeps only what would come after that"));
    EXPECT_FALSE(fs::exists(dir / "t.mp4"));
}

TEST_F(CliTest, EveryCommandSaysAndUsesThePlanOneRuleGivesAndLeavesAnUnusableEditsFileAlone)
{
    const fs::path movie = trackedMovie();
    auto noticesOf = [](const std::string& err) {
        std::vector<std::string> lines;
        for (size_t at = err.find("notice: "); at != std::string::npos; at = err.find("notice: ", at + 1))
            lines.push_back(err.substr(at, err.find('\n', at) - at));
        return lines;
    };
    // Saved as UTF-16: not edits this build can read.
    const std::string utf16("\xFF\xFE{\0}\0", 6);
    writeText(dir / "B.edits.json", utf16);

    auto plan = ctl({"plan", movie.string(), "--json"});
    ASSERT_EQ(plan.status, 0) << plan.err;
    const Json shown = Json::parse(plan.out);
    EXPECT_EQ(shown["planFromFile"], false);
    ASSERT_EQ(shown["notices"].size(), 1u);
    const std::string said = "notice: " + shown["notices"][0].get<std::string>();
    EXPECT_THAT(said, HasSubstr("falls back to its automatic edit"));

    auto frame = ctl({"stage", movie.string(), "--size", "720", "--frame", "0.2", "--png", (dir / "f.png").string()});
    ASSERT_EQ(frame.status, 0) << frame.err;
    EXPECT_EQ(noticesOf(frame.err), std::vector<std::string>{said});

    auto staged = plimRun({"--stage", movie.string()});
    ASSERT_EQ(staged.status, 0) << staged.err;
    EXPECT_EQ(noticesOf(staged.err), (std::vector<std::string>{said,
        "notice: B.edits.json was kept as it is, since it could not be used; the plan this render used is in "
        "B.rendered.json."}));
    // It rendered the automatic edit that plan showed (but for the zoom ids each makes
    // afresh), and left the file's bytes alone.
    auto withoutIds = [](Json plan) {
        for (Json& zoom : plan["zooms"])
            zoom.erase("id");
        return plan;
    };
    EXPECT_EQ(withoutIds(Json::parse(readText(dir / "B.rendered.json"))), withoutIds(shown["plan"]));
    EXPECT_EQ(readText(dir / "B.edits.json"), utf16);

    // Damage inside edits that decode: plan says so and takes the length it is given.
    writeText(dir / "B.edits.json", R"({"trimIn": "soon", "cuts": [{"id": "x"}], "zooms": []})");
    auto given = ctl({"plan", movie.string(), "--duration", "30"});
    EXPECT_EQ(given.status, 0) << given.err;
    EXPECT_THAT(given.out, HasSubstr("recording: 30.000s (given)"));
    EXPECT_THAT(given.out, HasSubstr("output: 30.000s"));
    EXPECT_THAT(given.out, HasSubstr("notice: "));
}

TEST_F(CliTest, WithoutARenderPlimRunsStartUpThenTheInterfaceOrSaysWhyNot)
{
    env.insert(env.end(), {"DISPLAY=", "WAYLAND_DISPLAY="});
    auto result = plimRun({"--stage"});
#if PLIM_UI_BUILT
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("Plim could not open its windows because this session has no display"));
#else
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("desktop interface is not part of this build"));
#endif
    EXPECT_THAT(result.err,
        HasSubstr("Plim: automatic updates are off in this process because this process is not the installed app"));
}

TEST_F(CliTest, PlanProposesTheAutomaticEditAndWritesItOnlyOverUsableEdits)
{
    auto demo = ctl({"demo", (dir / "demo").string(), "--width", "320", "--silent"});
    ASSERT_EQ(demo.status, 0) << demo.err;
    fs::path movie = dir / "demo" / "Demo.mov";
    EXPECT_EQ(demo.out, movie.string() + "\n");
    auto probe = ffprobe(movie);
    EXPECT_EQ(probe.width, 320);
    EXPECT_EQ(probe.height, 200);
    EXPECT_EQ(probe.frames, 1200); // 20 s at 60 fps
    // The demo types a note, but like a recording it keeps only the shortcuts.
    auto keys = KeystrokeTrack::read(movie);
    ASSERT_TRUE(keys.has_value() && keys->value.events.size() >= 3);
    for (const KeyEvent& key : keys->value.events)
        EXPECT_FALSE(key.caption.size() == 1 && std::isprint(static_cast<unsigned char>(key.caption[0])))
            << "plain typing in the track: " << key.caption;

    // No edits yet: the automatic edit is shown, trimming the idle ends of the demo.
    auto proposed = ctl({"plan", movie.string()});
    EXPECT_EQ(proposed.status, 0) << proposed.err;
    EXPECT_THAT(proposed.out, HasSubstr("automatic edit: "));
    EXPECT_THAT(proposed.out, HasSubstr("trim: "));
    EXPECT_THAT(proposed.out, HasSubstr("3 zooms where you clicked"));
    EXPECT_FALSE(fs::exists(dir / "demo" / "Demo.edits.json"));

    // An edits file that cannot be read is never replaced, even when asked to write.
    writeText(dir / "demo" / "Demo.edits.json", "{\"version\": 2.5}");
    auto refused = ctl({"plan", movie.string(), "--write"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.err, HasSubstr("was left exactly as it is"));
    EXPECT_EQ(readText(dir / "demo" / "Demo.edits.json"), "{\"version\": 2.5}");

    // Over usable edits, --auto --write replaces the plan and keeps the other keys.
    writeText(dir / "demo" / "Demo.edits.json", R"({"version": 2, "captionsFile": "Demo.captions.json", "trimIn": 1})");
    auto written = ctl({"plan", movie.string(), "--auto", "--write"});
    EXPECT_EQ(written.status, 0) << written.err;
    auto again = ctl({"plan", movie.string(), "--json"});
    EXPECT_THAT(again.out, HasSubstr("\"planFromFile\": true"));
    std::string edits = readText(dir / "demo" / "Demo.edits.json");
    EXPECT_THAT(edits, HasSubstr("\"captionsFile\": \"Demo.captions.json\""));
    EXPECT_THAT(edits, HasSubstr("\"writtenBy\": \"Plim "));
    EXPECT_EQ(edits.find("\"trimIn\": 1\n"), std::string::npos) << edits;
}

TEST_F(CliTest, PlimctlRefusesUnknownCommandsAndBadOptionsWithASentence)
{
    auto unknown = ctl({"frobnicate"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_THAT(unknown.err, HasSubstr("there is no command \"frobnicate\""));
    auto badDuration = ctl({"plan", "B.mov", "--duration", "soon"});
    EXPECT_EQ(badDuration.status, 1);
    EXPECT_THAT(badDuration.err, HasSubstr("is not a length in seconds"));
    for (const char* unnamed : {"", "/tmp/", "folder/"}) {
        auto none = ctl({"plan", unnamed});
        EXPECT_EQ(none.status, 1);
        EXPECT_EQ(none.err, "plimctl plan: No movie was named (the path \"" + std::string(unnamed)
                + "\" ends without a file name), so nothing was read or changed. Name a plim's movie, for example "
                  "~/Videos/Plim/B.mov.\n");
    }
    auto help = ctl({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.out, HasSubstr("plan"));
}

} // namespace

TEST(StageCLI, RequestedRenderPrefersStageAndIgnoresATrailingOption)
{
    using Args = std::vector<std::string>;
    EXPECT_EQ(StageCLI::requestedRender(Args{"plim", "--reframe", "a.mov"}), (RenderRequest{"a.mov", true}));
    EXPECT_EQ(StageCLI::requestedRender(Args{"plim", "--stage"}), std::nullopt);
    // A lone trailing --stage does not hide a usable --reframe before it.
    EXPECT_EQ(StageCLI::requestedRender(Args{"plim", "--reframe", "a.mov", "--stage"}), (RenderRequest{"a.mov", true}));
    EXPECT_EQ(StageCLI::requestedRender(Args{"plim", "--verbose", "x"}), std::nullopt);
    // Element 0 is scanned too, and the first usable occurrence wins.
    EXPECT_EQ(StageCLI::requestedRender(Args{"--stage", "first.mov", "--stage", "second.mov"}),
        (RenderRequest{"first.mov", false}));
}

TEST(StageCLI, ProgressTruncatesTowardZeroSummaryLineAndTrimSuffix)
{
    EXPECT_EQ(StageCLI::progressLine("staging", 0.999), "staging 99%");
    RenderSummary s{
        .wallSeconds = 3.24, .movieDuration = 60, .outputDuration = 41.46, .zooms = 3, .activeSkips = 2, .cuts = 1};
    EXPECT_EQ(StageCLI::summaryLine(s), "render: 3.2s for 60.0s of plim · out 41.5s · 3 zooms · 2 skips · 1 cuts");
    s.trimOut = 12.0;
    EXPECT_EQ(StageCLI::summaryLine(s),
        "render: 3.2s for 60.0s of plim · out 41.5s · 3 zooms · 2 skips · 1 cuts · trim 0.0–12.0s");
    EXPECT_EQ(StageCLI::trimSuffix(2.5, std::nullopt, 60), " · trim 2.5–60.0s");
    EXPECT_EQ(StageCLI::trimSuffix(std::nullopt, std::nullopt, 60), "");
    s.outputDuration = 2e9;
    EXPECT_THAT(StageCLI::summaryLine(s), HasSubstr(" · out 2e+09s · "));
}

TEST(AppRuntime, InstalledOnlyFromThePrefixBinFolderAndUpdaterHoldReasonsInOrder)
{
    EXPECT_TRUE(AppRuntime::isBundledExecutable("/usr/local/bin/plim", "/usr/local"));
    EXPECT_FALSE(AppRuntime::isBundledExecutable("/work/main/build/src/plim", "/usr/local"));
    EXPECT_FALSE(AppRuntime::isBundledExecutable("/usr/local/bin/sub/plim", "/usr/local"));
    EXPECT_FALSE(AppRuntime::isBundledExecutable("", "/usr/local"));
    // The test binary itself is a build-tree binary.
    EXPECT_FALSE(AppRuntime::isBundledApp());
    // Why the updater holds, a headless render named first.
    EXPECT_EQ(AppRuntime::updaterHold(true, true, "/usr/bin/plim"),
        "this process is a headless render (--stage / --reframe)");
    EXPECT_EQ(AppRuntime::updaterHold(false, true, "/usr/bin/plim"), std::nullopt);
    EXPECT_EQ(AppRuntime::updaterHold(false, false, "/tmp/b/plim"),
        "this process is not the installed app (the executable is /tmp/b/plim)");
}
