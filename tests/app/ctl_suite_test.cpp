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

struct Ran {
    int status;
    std::string out, err;
};

template<auto command>
Ran run(const Args& args)
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

TEST_F(CtlSuite, MomentsListsTheMergedHistoryOldestFirstWithTheQuerysFilters)
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
}

TEST_F(CtlSuite, MomentsNamesSkippedAndUnreadableStreamsAndLeavesThemAsTheyAre)
{
    const std::string torn = readText(m_graph / "tovan.moments.jsonl") + "{\"schemaVersion\":1,\"ts\":";
    writeText(m_graph / "tovan.moments.jsonl", torn);
    auto skipped = moments({"--app", "tovan"});
    EXPECT_EQ(skipped.status, 0);
    EXPECT_EQ(skipped.out, "2026-11-14T10:00:00.000Z  tovan  mark  Mark  [person: Ada]\n");
    EXPECT_EQ(skipped.err, "Skipped 1 line of the moment stream " + (m_graph / "tovan.moments.jsonl").string()
            + " that are not whole moments; the file was left as it is and its other moments are shown.\n");
    EXPECT_EQ(readText(m_graph / "tovan.moments.jsonl"), torn);

    fs::create_directories(m_graph / "sorvel.moments.jsonl");
    auto unreadable = moments({"--app", "sorvel"});
    EXPECT_EQ(unreadable.status, 1);
    EXPECT_EQ(unreadable.out, "No moments match.\n");
    EXPECT_TRUE(unreadable.err.starts_with("Could not read the moment stream ")) << unreadable.err;
    EXPECT_TRUE(fs::is_directory(m_graph / "sorvel.moments.jsonl"));
}

TEST_F(CtlSuite, BadArgumentsGetOneSentenceAndDoNothing)
{
    EXPECT_TRUE(moments({"--help"}).out.starts_with("usage: plimctl moments [options]"));
    EXPECT_TRUE(beacon({"--help"}).out.starts_with("usage: plimctl beacon post STATE"));
    const fs::path file = m_sandbox.home() / "file";
    writeText(file, "x");
    const std::string nowhere = "unix:path=" + (m_sandbox.home() / "none").string();
    auto refused = [](const Ran& r, const Args& args) {
        SCOPED_TRACE(::testing::PrintToString(args));
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_TRUE(r.err.ends_with(".\n")) << r.err;
    };
    for (const Args& args : std::vector<Args>{{"--colour"}, {"--app"}, {"--from", "yesterday"}, {"--entity-type", "file"},
             {"--app", "Plim"}, {"stray"}, {"--json=yes"}, {"--graph", file.string()}})
        refused(moments(args), args);
    for (const Args& args : std::vector<Args>{{}, {"dance"}, {"post", "idle", "--app", "vlc"},
             {"post", "idle", "--bus", nowhere}, {"watch", "--check-every", "0"}, {"watch", "plim", "tovan"}})
        refused(beacon(args), args);
    EXPECT_EQ(moments({"--to", "2026-13-01T00:00:00Z"}).err,
        "--to needs an ISO 8601 instant such as 2026-11-14T22:15:44Z, not \"2026-13-01T00:00:00Z\"; nothing was read.\n");
    EXPECT_EQ(beacon({"post", "rolling", "-5"}).err,
        "\"rolling -5\" is not a beacon state: use idle, paused SECONDS, rolling or rolling UNIX-SECONDS. Nothing was sent.\n");
    EXPECT_TRUE(beacon({"post", "idle", "--bus", nowhere}).err.starts_with("Could not connect to the session bus ("));
    EXPECT_EQ(readText(file), "x");
}

TEST(CtlBeacon, PostSendsTheStateThatAnObserverReceives)
{
    TestSessionBus daemon;
    ASSERT_TRUE(daemon.ready()) << daemon.daemonErrors();
    auto bus = SuiteBus::connectSession();
    ASSERT_TRUE(bus);
    std::mutex lock;
    std::vector<std::string> heard;
    auto observe = [&](SuiteApp app) {
        return bus->observeBeacon(app, {}, [&, app](const BeaconState& s) {
            std::lock_guard guard(lock);
            heard.push_back(std::string(appSlug(app)) + " " + s.wirePayload());
        });
    };
    auto plimObs = observe(SuiteApp::plim), tovanObs = observe(SuiteApp::tovan);
    ASSERT_TRUE(plimObs && tovanObs);
    auto paused = beacon({"post", "paused", "12.9"});
    EXPECT_EQ(paused.out, "Posted \"paused 12\" on the plim beacon.\n") << paused.err;
    auto heardSoFar = [&] {
        std::lock_guard guard(lock);
        return heard;
    };
    ASSERT_TRUE(eventually([&] { return heardSoFar().size() == 1; }));
    EXPECT_EQ(beacon({"post", "rolling", "1731622544", "--app", "tovan"}).status, 0);
    ASSERT_TRUE(eventually([&] { return heardSoFar().size() == 2; }));
    EXPECT_EQ(heardSoFar(), (std::vector<std::string>{"plim paused 12", "tovan rolling 1731622544"}));
}

TEST(CtlBeacon, WatchPrintsEachStateAndAVanishedSenderUntilSigterm)
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
        ASSERT_TRUE(bus);
        for (auto state : {BeaconState::rolling(1731622544), BeaconState::paused(12.9), BeaconState::idle()})
            ASSERT_TRUE(bus->postBeacon(state, SuiteApp::plim));
        ASSERT_TRUE(printed("plim: idle"));
        // This sender says it is rolling and then disconnects without saying idle.
        auto vanishing = SuiteBus::connectSession();
        ASSERT_TRUE(vanishing && vanishing->postBeacon(BeaconState::rolling(1731622600), SuiteApp::plim));
        ASSERT_TRUE(vanishing->flush());
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
