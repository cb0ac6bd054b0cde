#include "suite/suite_bus.h"

#include "testkit/session_bus.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

using namespace plim;
using namespace plim::testkit;

namespace {

// The other process of the cross-process test: this executable started again with
// PLIM_SUITE_BUS_PEER set. It prints each sorvel state it hears, posts a fixed
// sequence, says "ready" and waits to be killed.
int runPeer()
{
    auto bus = SuiteBus::connectSession();
    if (!bus)
        return std::fprintf(stderr, "%s\n", bus.error().sentence.c_str()), 2;
    auto heard = bus->observeBeacon(SuiteApp::sorvel, {}, [](const BeaconState& state) {
        std::printf("%s\n", state.wirePayload().c_str());
        std::fflush(stdout);
    });
    auto& transport = *bus->transport();
    bool ok = heard && bus->postBeacon(BeaconState::rolling(1731622544.7), SuiteApp::plim)
        && transport.post("app.plim.recording", "rolling -5")
        && bus->postBeacon(BeaconState::paused(12.9), SuiteApp::plim) && transport.post("app.plim.control", "dance")
        && bus->sendControl(ControlVerb::mark, SuiteApp::plim)
        && bus->postFiled("B.mov", SuiteApp::tovan) && bus->postBeacon(BeaconState::idle(), SuiteApp::plim)
        && bus->postBeacon(BeaconState::rolling(1731622600), SuiteApp::tovan) && bus->flush();
    if (!ok)
        return 3;
    std::printf("ready\n");
    std::fflush(stdout);
    for (;;)
        pause();
}

[[maybe_unused]] const int peer = [] { return std::getenv("PLIM_SUITE_BUS_PEER") ? (_exit(runPeer()), 0) : 0; }();

// A queue whose jobs run on the test's own thread when it pumps them.
struct TestQueue {
    std::mutex lock;
    std::vector<std::function<void()>> jobs;

    DeliveryQueue queue()
    {
        return [this](std::function<void()> job) {
            std::lock_guard guard(lock);
            jobs.push_back(std::move(job));
        };
    }
    void pump()
    {
        std::unique_lock guard(lock);
        auto ready = std::exchange(jobs, {});
        guard.unlock();
        for (auto& job : ready)
            job();
    }
};

} // namespace

// A private dbus-daemon for each test; the parameter "loopback" puts the in-process
// transport in place of the bus.
class SuiteBusBackends : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_daemon.ready()) << m_daemon.daemonErrors();
        auto bus = GetParam() == "loopback" ? Result<SuiteBus>(SuiteBus(makeLoopbackTransport()))
                                            : SuiteBus::connectSession();
        ASSERT_TRUE(bus) << bus.error().sentence;
        m_bus = std::make_unique<SuiteBus>(std::move(*bus));
    }
    TestSessionBus m_daemon;
    std::unique_ptr<SuiteBus> m_bus;
};
class SuiteBusOverDbus : public SuiteBusBackends {};

TEST_P(SuiteBusOverDbus, TwoProcessesExchangeMessagesAndAVanishedSenderIsNoticed)
{
    TestQueue queue;
    const DeliveryQueue q = queue.queue();
    std::vector<std::string> heard; // in the order of arrival, on this thread
    auto log = [&](const std::string& text) { heard.push_back(text); };
    std::string sender;
    auto beacon = m_bus->observeBeacon(SuiteApp::plim, q, [&](const BeaconState& s) { log(s.wirePayload()); });
    auto control = m_bus->observeControl(SuiteApp::plim, q, [&](ControlVerb v) { log(std::string(controlVerbText(v))); });
    auto notes = m_bus->observeFiled(SuiteApp::tovan, q, log);
    auto rolling = m_bus->observeBeaconWithSender(SuiteApp::tovan, q, [&](const BeaconState& s, const std::string& from) {
        log("tovan " + s.wirePayload());
        sender = from;
    });
    auto otherApp = m_bus->observeControl(SuiteApp::tovan, {}, [&](ControlVerb) { ADD_FAILURE(); });
    ASSERT_TRUE(beacon && control && notes && rolling && otherApp);

    fs::path out = m_daemon.folder() / "peer.out";
    ChildProcess peer({"/proc/self/exe"}, {"PLIM_SUITE_BUS_PEER=1"}, out, m_daemon.folder() / "peer.err");
    ASSERT_TRUE(eventually([&] { return readText(out) == "ready\n"; })) << readText(m_daemon.folder() / "peer.err");
    ASSERT_TRUE(eventually([&] { return queue.pump(), heard.size() >= 6; }));
    EXPECT_EQ(heard, (std::vector<std::string>{"rolling 1731622544", "paused 12", "mark", "B.mov", "idle",
                         "tovan rolling 1731622600"}));

    // The other process hears only what the broadcaster lets out.
    BeaconBroadcaster broadcaster(SuiteApp::sorvel, m_bus->beaconPoster());
    for (auto state : {BeaconState::rolling(100.2), BeaconState::rolling(100.6), BeaconState::rolling(103),
             BeaconState::paused(12.9), BeaconState::paused(12.9), BeaconState::idle()})
        ASSERT_TRUE(broadcaster.broadcast(state));
    ASSERT_TRUE(eventually([&] { return readText(out).ends_with("idle\n"); }));
    EXPECT_EQ(readText(out), "ready\nrolling 100\nrolling 103\npaused 12\nidle\n");

    // It vanishes without saying idle; the watchdog's callback may stop the watchdog.
    EXPECT_TRUE(m_bus->isSenderConnected(sender));
    std::atomic<int> gone = 0;
    std::atomic<bool> activeWhenGone = true;
    BeaconLivenessWatchdog watchdog(SuiteApp::tovan, 0.02, [&] { return m_bus->isSenderConnected(sender); }, [&] {
        activeWhenGone = watchdog.isActive();
        watchdog.stop();
        ++gone;
    });
    watchdog.start();
    kill(peer.pid(), SIGKILL);
    peer.wait();
    ASSERT_TRUE(eventually([&] { return gone.load() > 0; }));
    EXPECT_FALSE(activeWhenGone);
    watchdog.stop();
    EXPECT_EQ(gone.load(), 1);
    m_daemon.stop(); // a question the bus cannot answer counts as still running
    EXPECT_TRUE(m_bus->isSenderConnected(sender));
}

TEST_P(SuiteBusBackends, CancelledObservationsHearNothingMoreEvenFromTheirOwnHandlerOrTheirQueue)
{
    TestQueue queue;
    std::atomic<int> heardBySelfCancelling = 0, heardQueued = 0, heardByWitness = 0;
    SuiteBusObservation selfCancelling;
    auto cancelling = m_bus->observeBeacon(SuiteApp::plim, {}, [&](const BeaconState&) {
        ++heardBySelfCancelling;
        selfCancelling.cancel();
    });
    auto queued = m_bus->observeBeacon(SuiteApp::plim, queue.queue(), [&](const BeaconState&) { ++heardQueued; });
    auto witness = m_bus->observeBeacon(SuiteApp::plim, {}, [&](const BeaconState&) { ++heardByWitness; });
    ASSERT_TRUE(cancelling && queued && witness);
    selfCancelling = std::move(*cancelling);

    ASSERT_TRUE(m_bus->postBeacon(BeaconState::paused(1), SuiteApp::plim));
    ASSERT_TRUE(m_bus->postBeacon(BeaconState::paused(2), SuiteApp::plim));
    // Handlers run in the order of arrival, so the first post is queued by now.
    ASSERT_TRUE(eventually([&] { return heardByWitness.load() == 2; }));
    queued->cancel();
    queue.pump();
    EXPECT_EQ(heardQueued.load(), 0);
    EXPECT_EQ(heardBySelfCancelling.load(), 1);
}

TEST_P(SuiteBusBackends, BadNamesAndAMissingBusAreRefusedWithASentence)
{
    auto sentence = [](const auto& result) { return result ? std::string("no error") : result.error().sentence; };
    EXPECT_EQ(sentence(m_bus->transport()->post("nodots", "x")), "\"nodots\" is not a valid message name; nothing was sent.");
    EXPECT_FALSE(m_bus->transport()->subscribe("app.9plim.recording", [](auto&, auto&) {}));
    EXPECT_FALSE(splitBusName("app..recording"));
    auto none = sentence(SuiteBus::connectSession("unix:path=" + (m_daemon.folder() / "none").string()));
    EXPECT_TRUE(none.starts_with("Could not connect to the session bus (")) << none;
    EXPECT_TRUE(none.ends_with("check that a D-Bus session is running.")) << none;
}

INSTANTIATE_TEST_SUITE_P(Backends, SuiteBusBackends, ::testing::Values("dbus", "loopback"));
INSTANTIATE_TEST_SUITE_P(Dbus, SuiteBusOverDbus, ::testing::Values("dbus"));
