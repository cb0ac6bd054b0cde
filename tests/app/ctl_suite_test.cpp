#include "app/ctl_suite.h"

#include "base/json.h"
#include "suite/suite.h"
#include "testkit/session_bus.h"

#include <gtest/gtest.h>

#include <csignal>
#include <iostream>
#include <sstream>
#include <thread>

using namespace plim;
using namespace plim::testkit;
using Args = std::vector<std::string>;

namespace {

// `plimctl beacon watch` runs in this test executable started again with
// PLIM_CTL_SUITE_WATCH set, so that a real SIGTERM can end it.
[[maybe_unused]] const int watcher = [] {
    if (const char* app = std::getenv("PLIM_CTL_SUITE_WATCH")) {
        int status = runBeaconCommand({"watch", app, "--check-every", "0.05"}, std::cout, std::cerr);
        std::cout.flush();
        _exit(status);
    }
    return 0;
}();

template<auto command> CommandResult run(const Args& args)
{
    std::ostringstream out, err;
    int status = command(args, out, err);
    return {status, out.str(), err.str()};
}
constexpr auto moments = run<runMomentsCommand>;
constexpr auto beacon = run<runBeaconCommand>;

Moment::Instant at(std::string_view text) { return parseMomentTime(text).value(); }

class CtlSuite : public ::testing::Test {
protected:
    void SetUp() override
    {
        auto plim = std::move(*SuiteGraphWriter::create("plim", {true, std::nullopt}));
        auto tovan = std::move(*SuiteGraphWriter::create("tovan"));
        ASSERT_TRUE(plim->record("recording", "Screen recording", "2 min", {{"file", "B.mov"}}, false,
            at("2026-11-14T10:00:00Z"), "ID-B"));
        ASSERT_TRUE(tovan->record("mark", "Mark", std::nullopt, {{"person", "Ada"}}, false, at("2026-11-14T10:00:00Z")));
        ASSERT_TRUE(plim->record("note", "Private\nnote", std::nullopt, {}, true, at("2026-11-14T11:00:00Z")));
        ASSERT_TRUE(plim->record("recording", "Gone", std::nullopt, {}, false, at("2026-11-14T12:00:00Z")));
        ASSERT_TRUE(plim->retract(at("2026-11-14T12:00:00Z"), std::nullopt, at("2026-11-14T13:00:00Z")));
        m_graph = plim->root();
    }
    XdgSandbox m_sandbox;
    fs::path m_graph;
};

} // namespace

TEST_F(CtlSuite, MomentsShowControlCharactersEscaped)
{
    auto sorvel = std::move(*SuiteGraphWriter::create("sorvel"));
    auto recorded = sorvel->record("mark", "\x1b]0;owned\x07Title\x1b[2J", "line\nbreak \xc2\x9b" "1m",
        {{"file", "a\x08" "b"}}, false, at("2026-11-14T15:00:00Z"));
    ASSERT_TRUE(recorded) << recorded.error().sentence;
    auto listed = moments({"--app", "sorvel"});
    EXPECT_EQ(listed.status, 0);
    EXPECT_EQ(listed.out, "2026-11-14T15:00:00.000Z  sorvel  mark  \\x1b]0;owned\\x07Title\\x1b[2J: line break \\u009b1m"
                          "  [file: a\\x08b]\n");
}

TEST_F(CtlSuite, MomentsListsTheMergedHistoryWithTheQuerysFiltersAndNamesWhatItCouldNotRead)
{
    const std::string rec = "2026-11-14T10:00:00.000Z  plim  recording  Screen recording: 2 min  [file: B.mov]\n";
    const std::string mark = "2026-11-14T10:00:00.000Z  tovan  mark  Mark  [person: Ada]\n";
    for (const auto& [args, expected] : std::vector<std::pair<Args, std::string>>{
             {{}, rec + mark},
             {{"--app", "tovan"}, mark},
             {{"--entity=ada"}, mark},
             {{"--entity", "ada", "--entity-type", "file"}, "No moments match.\n"},
             {{"--from", "2026-11-14T10:00:00.001Z", "--sensitive"},
                 "2026-11-14T11:00:00.000Z  plim  note  Private note  (sensitive)\n"},
             {{"--to", "2026-11-14T10:00:00Z", "--kind", "recording"}, rec},
             {{"--all", "--kind", "recording"}, rec + "2026-11-14T12:00:00.000Z  plim  recording  Gone\n"},
             {{"--kind", "retracted"},
                 "2026-11-14T13:00:00.000Z  plim  retracted  Retracted a moment  (plim at 2026-11-14T12:00:00.000Z)\n"},
             {{"--json", "--app", "sorvel"}, "[]\n"}}) {
        auto listed = moments(args);
        EXPECT_EQ(listed.status, 0);
        EXPECT_EQ(listed.err, "");
        EXPECT_EQ(listed.out, expected) << ::testing::PrintToString(args);
    }
    auto json = nlohmann::json::parse(moments({"--json", "--app", "plim", "--all"}).out, nullptr, false);
    ASSERT_TRUE(json.is_array() && json.size() == 2) << json;
    EXPECT_EQ(json[0]["source"], "ID-B");
    EXPECT_EQ(json[1]["title"], "Gone");

    // A stream that cannot be read is named and left as it is; the others are listed.
    const fs::path sorvel = m_graph / "sorvel.moments.jsonl";
    fs::create_directories(sorvel);
    auto listed = moments({"--app", "tovan", "--app", "sorvel"});
    EXPECT_EQ(listed.status, 1);
    EXPECT_EQ(listed.out, mark);
    EXPECT_EQ(listed.err, "Could not read the moment stream " + sorvel.string()
            + " (it is a folder, not a file); its moments are left out and the file was left as it is.\n");
    EXPECT_TRUE(fs::is_directory(sorvel));
}

TEST_F(CtlSuite, BadArgumentsGetOneSentenceAndDoNothing)
{
    EXPECT_TRUE(moments({"--help"}).out.starts_with("usage: plimctl moments [options]"));
    EXPECT_TRUE(beacon({"--help"}).out.starts_with("usage: plimctl beacon post STATE"));
    const fs::path file = m_sandbox.home() / "file";
    writeText(file, "x");
    const std::string nowhere = "unix:path=" + (m_sandbox.home() / "none").string();
    for (const CommandResult& r : {moments({"--colour"}), moments({"--app"}), moments({"--from", "yesterday"}),
             moments({"--entity-type", "file"}), moments({"--app", "Plim"}), moments({"stray"}),
             moments({"--json=yes"}), moments({"--graph", file.string()}), beacon({}), beacon({"dance"}),
             beacon({"post", "idle", "--app", "vlc"}), beacon({"post", "idle", "--bus", nowhere}),
             beacon({"watch", "--check-every", "0"}), beacon({"watch", "plim", "tovan"})}) {
        EXPECT_EQ(r.status, 1) << r.err;
        EXPECT_EQ(r.out, "") << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_TRUE(r.err.ends_with(".\n")) << r.err;
    }
    EXPECT_EQ(moments({"--to", "2026-13-01T00:00:00Z"}).err,
        "--to needs an ISO 8601 instant such as 2026-11-14T22:15:44Z, not \"2026-13-01T00:00:00Z\"; nothing was read.\n");
    EXPECT_EQ(beacon({"post", "rolling", "-5"}).err,
        "\"rolling -5\" is not a beacon state: use idle, paused SECONDS, rolling or rolling UNIX-SECONDS. Nothing was sent.\n");
    EXPECT_EQ(readText(file), "x");
}

TEST(CtlBeacon, WatchPrintsEachPostedStateAndAVanishedSenderUntilSigterm)
{
    TestSessionBus daemon;
    ASSERT_TRUE(daemon.ready()) << daemon.daemonErrors();
    fs::path out = daemon.folder() / "watch.out";
    ChildProcess watcher({"/proc/self/exe"}, {"PLIM_CTL_SUITE_WATCH=plim"}, out, daemon.folder() / "watch.err");
    auto printed = [&](const std::string& line) {
        return eventually([&] { return readText(out).find(line + "\n") != std::string::npos; });
    };
    ASSERT_TRUE(printed("Watching the plim beacon; press Ctrl+C to stop.")) << readText(daemon.folder() / "watch.err");
    {
        auto bus = SuiteBus::connectSession();
        ASSERT_TRUE(bus && bus->postBeacon(BeaconState::rolling(1731622544), SuiteApp::plim));
        ASSERT_TRUE(bus->postBeacon(BeaconState::paused(12.9), SuiteApp::plim));
        ASSERT_TRUE(printed("plim: paused after 12 s"));
        // Posts from plimctl: tovan's beacon is not watched, and once idle is heard the
        // first sender may leave unnoticed.
        EXPECT_EQ(beacon({"post", "paused", "5", "--app", "tovan"}).out, "Posted \"paused 5\" on the tovan beacon.\n");
        EXPECT_EQ(beacon({"post", "idle"}).out, "Posted \"idle\" on the plim beacon.\n");
        ASSERT_TRUE(printed("plim: idle"));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300)); // several checks of a watchdog left running
    // The last sender disconnects without saying idle.
    EXPECT_EQ(beacon({"post", "rolling", "1731622600.9"}).out, "Posted \"rolling 1731622600\" on the plim beacon.\n");
    ASSERT_TRUE(printed("plim: gone without saying idle (treated as idle)"));
    kill(watcher.pid(), SIGTERM);
    EXPECT_EQ(watcher.wait(), 0);
    EXPECT_EQ(readText(out), "Watching the plim beacon; press Ctrl+C to stop.\n"
                             "plim: rolling since 2024-11-14T22:15:44.000Z\n"
                             "plim: paused after 12 s\n"
                             "plim: idle\n"
                             "plim: rolling since 2024-11-14T22:16:40.000Z\n"
                             "plim: gone without saying idle (treated as idle)\n");
}
