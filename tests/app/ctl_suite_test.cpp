#include "app/ctl_suite.h"

#include "base/json.h"
#include "suite/graph_writer.h"
#include "suite/suite_bus.h"
#include "suite/test_session_bus.h"

#include <gtest/gtest.h>

#include <csignal>
#include <iostream>
#include <sstream>

using namespace plim;
using namespace plim::testkit;

namespace {

// `plimctl beacon watch` runs in this test executable started again with
// PLIM_CTL_SUITE_CHILD set, so that a real SIGTERM can end it.
[[maybe_unused]] const int childRole = [] {
    if (const char* role = std::getenv("PLIM_CTL_SUITE_CHILD")) {
        int status = runBeaconCommand({"watch", role, "--check-every", "0.05"}, std::cout, std::cerr);
        std::cout.flush();
        _exit(status);
    }
    return 0;
}();

struct Run {
    int status;
    std::string out, err;
};

Run moments(const std::vector<std::string>& args)
{
    std::ostringstream out, err;
    int status = runMomentsCommand(args, out, err);
    return {status, out.str(), err.str()};
}

Run beacon(const std::vector<std::string>& args)
{
    std::ostringstream out, err;
    int status = runBeaconCommand(args, out, err);
    return {status, out.str(), err.str()};
}

Moment::Instant at(std::string_view text) { return parseMomentTime(text).value(); }

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

class CtlMoments : public ::testing::Test {
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

TEST_F(CtlMoments, ListsTheMergedHistoryOldestFirstWithTheQuerysFilters)
{
    auto all = moments({});
    EXPECT_EQ(all.status, 0) << all.err;
    EXPECT_EQ(all.err, "");
    EXPECT_EQ(lines(all.out), (std::vector<std::string>{
                                  "2026-11-14T10:00:00.000Z  plim  recording  Screen recording: 2 min  [file: B.mov]",
                                  "2026-11-14T10:00:00.000Z  tovan  mark  Mark  [person: Ada]",
                              }));

    EXPECT_EQ(lines(moments({"--app", "tovan"}).out).size(), 1u);
    EXPECT_EQ(lines(moments({"--entity=ada"}).out).at(0), "2026-11-14T10:00:00.000Z  tovan  mark  Mark  [person: Ada]");
    EXPECT_EQ(moments({"--entity", "ada", "--entity-type", "file"}).out, "No moments match.\n");
    EXPECT_EQ(lines(moments({"--from", "2026-11-14T10:00:00.001Z", "--sensitive"}).out),
        (std::vector<std::string>{"2026-11-14T11:00:00.000Z  plim  note  Private note  (sensitive)"}));
    EXPECT_EQ(lines(moments({"--to", "2026-11-14T10:00:00Z", "--kind", "recording"}).out).size(), 1u);
    EXPECT_EQ(lines(moments({"--all"}).out).back(), "2026-11-14T12:00:00.000Z  plim  recording  Gone");
    EXPECT_EQ(lines(moments({"--kind", "retracted"}).out),
        (std::vector<std::string>{
            "2026-11-14T13:00:00.000Z  plim  retracted  Retracted a moment  (plim at 2026-11-14T12:00:00.000Z)"}));

    auto json = moments({"--json", "--app", "plim", "--all"});
    ASSERT_EQ(json.status, 0);
    auto parsed = nlohmann::json::parse(json.out, nullptr, false);
    ASSERT_TRUE(parsed.is_array()) << json.out;
    ASSERT_EQ(parsed.size(), 2u);
    EXPECT_EQ(parsed[0]["source"], "ID-B");
    EXPECT_EQ(parsed[1]["title"], "Gone");
    EXPECT_EQ(moments({"--json", "--app", "sorvel"}).out, "[]\n");
}

TEST_F(CtlMoments, NamesSkippedAndUnreadableStreamsAndLeavesThemAsTheyAre)
{
    const std::string torn = readText(m_graph / "tovan.moments.jsonl") + "{\"schemaVersion\":1,\"ts\":";
    writeText(m_graph / "tovan.moments.jsonl", torn);
    auto run = moments({});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(lines(run.out).size(), 2u);
    EXPECT_EQ(run.err, "Skipped 1 line of the moment stream " + (m_graph / "tovan.moments.jsonl").string()
            + " that are not whole moments; the file was left as it is and its other moments are shown.\n");
    EXPECT_EQ(readText(m_graph / "tovan.moments.jsonl"), torn);

    fs::create_directories(m_graph / "sorvel.moments.jsonl");
    auto unreadable = moments({"--app", "sorvel"});
    EXPECT_EQ(unreadable.status, 1);
    EXPECT_EQ(unreadable.out, "No moments match.\n");
    EXPECT_TRUE(unreadable.err.starts_with("Could not read the moment stream ")) << unreadable.err;
    EXPECT_TRUE(fs::is_directory(m_graph / "sorvel.moments.jsonl"));
}

TEST_F(CtlMoments, BadOptionsGetOneSentenceAndReadNothing)
{
    auto help = moments({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(help.out.starts_with("usage: plimctl moments [options]"));

    for (const auto& args : std::vector<std::vector<std::string>>{{"--colour"}, {"--app"}, {"--from", "yesterday"},
             {"--entity-type", "file"}, {"--app", "Plim"}, {"stray"}, {"--json=yes"}}) {
        auto run = moments(args);
        EXPECT_EQ(run.status, 1) << args[0];
        EXPECT_EQ(run.out, "") << args[0];
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
        EXPECT_TRUE(run.err.ends_with(".\n")) << run.err;
    }
    EXPECT_EQ(moments({"--to", "2026-13-01T00:00:00Z"}).err,
        "--to needs an ISO 8601 instant such as 2026-11-14T22:15:44Z, not \"2026-13-01T00:00:00Z\"; nothing was read.\n");

    writeText(m_sandbox.home() / "file", "x");
    auto notFolder = moments({"--graph", (m_sandbox.home() / "file").string()});
    EXPECT_EQ(notFolder.status, 1);
    EXPECT_EQ(readText(m_sandbox.home() / "file"), "x");
}

TEST(CtlBeacon, PostSendsTheStateThatAnObserverReceives)
{
    TestSessionBus daemon;
    ASSERT_TRUE(daemon.ready()) << daemon.daemonErrors();
    auto bus = SuiteBus::connectSession();
    ASSERT_TRUE(bus);
    std::mutex lock;
    std::vector<BeaconState> plimStates, tovanStates;
    auto plimObs = bus->observeBeacon(SuiteApp::plim, {}, [&](const BeaconState& s) {
        std::lock_guard guard(lock);
        plimStates.push_back(s);
    });
    auto tovanObs = bus->observeBeacon(SuiteApp::tovan, {}, [&](const BeaconState& s) {
        std::lock_guard guard(lock);
        tovanStates.push_back(s);
    });
    ASSERT_TRUE(plimObs && tovanObs);

    auto paused = beacon({"post", "paused", "12.9"});
    EXPECT_EQ(paused.status, 0) << paused.err;
    EXPECT_EQ(paused.out, "Posted \"paused 12\" on the plim beacon.\n");
    auto rolling = beacon({"post", "rolling", "1731622544", "--app", "tovan"});
    EXPECT_EQ(rolling.status, 0) << rolling.err;
    ASSERT_TRUE(eventually([&] {
        std::lock_guard guard(lock);
        return !plimStates.empty() && !tovanStates.empty();
    }));
    EXPECT_EQ(plimStates, (std::vector<BeaconState>{BeaconState::paused(12)}));
    EXPECT_EQ(tovanStates, (std::vector<BeaconState>{BeaconState::rolling(1731622544)}));

    auto bad = beacon({"post", "rolling", "-5"});
    EXPECT_EQ(bad.status, 1);
    EXPECT_EQ(bad.err,
        "\"rolling -5\" is not a beacon state: use idle, paused SECONDS, rolling or rolling UNIX-SECONDS. Nothing was sent.\n");
    EXPECT_EQ(beacon({"post", "idle", "--app", "vlc"}).status, 1);
    EXPECT_EQ(beacon({"dance"}).status, 1);
    EXPECT_TRUE(beacon({"--help"}).out.starts_with("usage: plimctl beacon post STATE"));
}

TEST(CtlBeacon, WithoutABusItSaysSo)
{
    TempDir dir;
    auto run = beacon({"post", "idle", "--bus", "unix:path=" + (dir / "none").string()});
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(run.err.starts_with("Could not connect to the session bus (")) << run.err;
    EXPECT_EQ(run.out, "");
}

TEST(CtlBeacon, WatchPrintsEachStateAndAVanishedSenderUntilSigterm)
{
    TestSessionBus daemon;
    ASSERT_TRUE(daemon.ready()) << daemon.daemonErrors();
    fs::path out = daemon.folder() / "watch.out";
    ChildProcess watcher({"/proc/self/exe"}, {"PLIM_CTL_SUITE_CHILD=plim"}, out, daemon.folder() / "watch.err");
    auto printed = [&](const std::string& line) {
        return eventually([&] { return readText(out).find(line + "\n") != std::string::npos; });
    };
    ASSERT_TRUE(printed("Watching the plim beacon; press Ctrl+C to stop.")) << readText(daemon.folder() / "watch.err");

    {
        auto bus = SuiteBus::connectSession();
        ASSERT_TRUE(bus);
        ASSERT_TRUE(bus->postBeacon(BeaconState::rolling(1731622544), SuiteApp::plim));
        ASSERT_TRUE(bus->postBeacon(BeaconState::paused(12.9), SuiteApp::plim));
        ASSERT_TRUE(bus->postBeacon(BeaconState::idle(), SuiteApp::plim));
        ASSERT_TRUE(printed("plim: idle"));
    }
    {
        // This sender says it is rolling and then disconnects without saying idle.
        auto bus = SuiteBus::connectSession();
        ASSERT_TRUE(bus);
        ASSERT_TRUE(bus->postBeacon(BeaconState::rolling(1731622600), SuiteApp::plim));
        ASSERT_TRUE(printed("plim: rolling since 2024-11-14T22:16:40.000Z"));
    }
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
