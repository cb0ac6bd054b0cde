#include "suite/suite_bus.h"

#include "suite/test_session_bus.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <unistd.h>

using namespace plim;
using namespace plim::testkit;

namespace {

// The other side of the cross-process tests: this test executable started again with
// PLIM_SUITE_BUS_CHILD naming a role. It runs before any test and exits.
int runChildRole(const std::string& role)
{
    auto bus = SuiteBus::connectSession();
    if (!bus) {
        std::fprintf(stderr, "%s\n", bus.error().sentence.c_str());
        return 2;
    }
    auto& transport = *bus->transport();
    if (role == "sequence") {
        bool ok = bus->postBeacon(BeaconState::rolling(1731622544.7), SuiteApp::plim).has_value()
            && transport.post("app.plim.recording", "rolling -5").has_value()
            && bus->postBeacon(BeaconState::paused(12.9), SuiteApp::plim).has_value()
            && transport.post("app.plim.control", "dance").has_value()
            && bus->sendControl(ControlVerb::mark, SuiteApp::plim).has_value()
            && bus->postFiled("B.mov", SuiteApp::tovan).has_value()
            && bus->postBeacon(BeaconState::idle(), SuiteApp::plim).has_value() && bus->flush().has_value();
        return ok ? 0 : 3;
    }
    if (role == "hang") {
        if (!bus->postBeacon(BeaconState::rolling(1731622544), SuiteApp::tovan) || !bus->flush())
            return 3;
        std::printf("posted\n");
        std::fflush(stdout);
        for (;;)
            pause();
    }
    if (role == "observe") {
        std::mutex lock;
        std::condition_variable cv;
        bool idle = false;
        auto observation = bus->observeBeacon(SuiteApp::plim, {}, [&](const BeaconState& state) {
            std::printf("%s\n", state.wirePayload().c_str());
            std::fflush(stdout);
            std::lock_guard guard(lock);
            idle = state.kind == BeaconState::Kind::idle;
            cv.notify_all();
        });
        if (!observation)
            return 3;
        std::printf("ready\n");
        std::fflush(stdout);
        std::unique_lock guard(lock);
        cv.wait(guard, [&] { return idle; });
        return 0;
    }
    return 4;
}

[[maybe_unused]] const int childRole = [] {
    if (const char* role = std::getenv("PLIM_SUITE_BUS_CHILD"))
        _exit(runChildRole(role));
    return 0;
}();

ChildProcess startChild(const std::string& role, const fs::path& out)
{
    return ChildProcess({"/proc/self/exe"}, {"PLIM_SUITE_BUS_CHILD=" + role}, out, out.string() + ".err");
}

// A queue whose jobs run on the test's own thread when it pumps them.
class TestQueue {
public:
    DeliveryQueue queue()
    {
        return [this](std::function<void()> job) {
            std::lock_guard guard(m_lock);
            m_jobs.push_back(std::move(job));
        };
    }
    size_t waiting()
    {
        std::lock_guard guard(m_lock);
        return m_jobs.size();
    }
    // Runs queued jobs here until `done` holds.
    bool pumpUntil(const std::function<bool()>& done)
    {
        return eventually([&] {
            std::deque<std::function<void()>> jobs;
            {
                std::lock_guard guard(m_lock);
                jobs.swap(m_jobs);
            }
            for (auto& job : jobs)
                job();
            return done();
        });
    }

private:
    std::mutex m_lock;
    std::deque<std::function<void()>> m_jobs;
};

} // namespace

class SuiteBusOverDbus : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_daemon.ready()) << m_daemon.daemonErrors();
        auto bus = SuiteBus::connectSession();
        ASSERT_TRUE(bus) << bus.error().sentence;
        m_bus = std::make_unique<SuiteBus>(std::move(*bus));
    }
    TestSessionBus m_daemon;
    std::unique_ptr<SuiteBus> m_bus;
};

TEST_F(SuiteBusOverDbus, AnotherProcessesBeaconControlAndFiledArriveOnTheGivenQueue)
{
    TestQueue queue;
    std::vector<BeaconState> states;
    std::vector<ControlVerb> verbs;
    std::vector<std::string> filed;
    std::set<std::thread::id> threads;
    auto beacon = m_bus->observeBeacon(SuiteApp::plim, queue.queue(), [&](const BeaconState& s) {
        states.push_back(s);
        threads.insert(std::this_thread::get_id());
    });
    auto control = m_bus->observeControl(SuiteApp::plim, queue.queue(), [&](ControlVerb v) { verbs.push_back(v); });
    auto notes = m_bus->observeFiled(SuiteApp::tovan, queue.queue(), [&](const std::string& t) { filed.push_back(t); });
    auto otherApp = m_bus->observeBeacon(SuiteApp::sorvel, {}, [&](const BeaconState&) { ADD_FAILURE(); });
    ASSERT_TRUE(beacon && control && notes && otherApp);

    auto child = startChild("sequence", m_daemon.folder() / "child.out");
    EXPECT_EQ(child.wait(), 0) << readText(m_daemon.folder() / "child.out.err");
    ASSERT_TRUE(queue.pumpUntil([&] { return states.size() >= 3 && !verbs.empty() && !filed.empty(); }));

    EXPECT_EQ(states, (std::vector<BeaconState>{BeaconState::rolling(1731622544), BeaconState::paused(12),
                          BeaconState::idle()}));
    EXPECT_EQ(verbs, (std::vector<ControlVerb>{ControlVerb::mark}));
    EXPECT_EQ(filed, (std::vector<std::string>{"B.mov"}));
    EXPECT_EQ(threads, (std::set<std::thread::id>{std::this_thread::get_id()}));
}

TEST_F(SuiteBusOverDbus, AnotherProcessHearsOnlyWhatTheBroadcasterPosts)
{
    fs::path out = m_daemon.folder() / "observer.out";
    auto child = startChild("observe", out);
    ASSERT_TRUE(eventually([&] { return readText(out).starts_with("ready\n"); })) << readText(out.string() + ".err");

    BeaconBroadcaster broadcaster(SuiteApp::plim, m_bus->beaconPoster());
    for (auto state : {BeaconState::rolling(100.2), BeaconState::rolling(100.6), BeaconState::rolling(103),
             BeaconState::paused(12.9), BeaconState::paused(12.9), BeaconState::idle()})
        ASSERT_TRUE(broadcaster.broadcast(state));
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(readText(out), "ready\nrolling 100\nrolling 103\npaused 12\nidle\n");
}

TEST_F(SuiteBusOverDbus, TheWatchdogNoticesASenderThatVanishedWithoutSayingIdle)
{
    std::mutex lock;
    std::optional<std::string> sender;
    auto observation = m_bus->observeBeaconWithSender(SuiteApp::tovan, {}, [&](const BeaconState& state, const std::string& from) {
        std::lock_guard guard(lock);
        if (state.kind == BeaconState::Kind::rolling)
            sender = from;
    });
    ASSERT_TRUE(observation);
    fs::path out = m_daemon.folder() / "hang.out";
    auto child = startChild("hang", out);
    ASSERT_TRUE(eventually([&] {
        std::lock_guard guard(lock);
        return sender.has_value();
    }));
    std::string from = *sender;
    EXPECT_TRUE(m_bus->isSenderConnected(from));

    std::atomic<int> gone = 0;
    BeaconLivenessWatchdog watchdog(
        SuiteApp::tovan, 0.02, [&] { return m_bus->isSenderConnected(from); }, [&] { ++gone; });
    watchdog.start();
    kill(child.pid(), SIGKILL);
    child.wait();
    ASSERT_TRUE(eventually([&] { return gone.load() > 0; }));
    EXPECT_FALSE(m_bus->isSenderConnected(from));
    watchdog.stop();
    EXPECT_EQ(gone.load(), 1);
}

TEST(SuiteBusConnection, NoBusIsASentenceNotACrash)
{
    TempDir dir;
    auto bus = SuiteBus::connectSession("unix:path=" + (dir / "no-daemon-here").string());
    ASSERT_FALSE(bus);
    EXPECT_TRUE(bus.error().sentence.starts_with("Could not connect to the session bus (")) << bus.error().sentence;
    EXPECT_TRUE(bus.error().sentence.ends_with("check that a D-Bus session is running."));
}

// The same in-process behaviour from the D-Bus backend and the loopback stand-in.
class SuiteBusBackends : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override
    {
        if (GetParam() == "loopback") {
            m_bus = std::make_unique<SuiteBus>(makeLoopbackTransport());
            return;
        }
        m_daemon = std::make_unique<TestSessionBus>();
        ASSERT_TRUE(m_daemon->ready()) << m_daemon->daemonErrors();
        auto bus = SuiteBus::connectSession();
        ASSERT_TRUE(bus) << bus.error().sentence;
        m_bus = std::make_unique<SuiteBus>(std::move(*bus));
    }
    void TearDown() override
    {
        m_bus.reset();
        m_daemon.reset();
    }
    std::unique_ptr<TestSessionBus> m_daemon;
    std::unique_ptr<SuiteBus> m_bus;
};

TEST_P(SuiteBusBackends, CancelledObservationsHearNothingMoreEvenFromTheirOwnHandler)
{
    std::atomic<int> cancelled = 0, once = 0, witness = 0;
    auto first = m_bus->observeBeacon(SuiteApp::plim, {}, [&](const BeaconState&) { ++cancelled; });
    SuiteBusObservation selfCancelling;
    auto second = m_bus->observeBeacon(SuiteApp::plim, {}, [&](const BeaconState&) {
        ++once;
        selfCancelling.cancel();
    });
    auto third = m_bus->observeBeacon(SuiteApp::plim, {}, [&](const BeaconState&) { ++witness; });
    ASSERT_TRUE(first && second && third);
    selfCancelling = std::move(*second);
    first->cancel();
    EXPECT_FALSE(first->isActive());

    ASSERT_TRUE(m_bus->postBeacon(BeaconState::paused(1), SuiteApp::plim));
    ASSERT_TRUE(m_bus->postBeacon(BeaconState::paused(2), SuiteApp::plim));
    ASSERT_TRUE(eventually([&] { return witness.load() == 2; }));
    EXPECT_EQ(cancelled.load(), 0);
    EXPECT_EQ(once.load(), 1);
    EXPECT_FALSE(selfCancelling.isActive());
}

TEST_P(SuiteBusBackends, JobsAlreadyQueuedDoNotRunAfterCancel)
{
    TestQueue queue;
    int heard = 0;
    auto observation = m_bus->observeFiled(SuiteApp::plim, queue.queue(), [&](const std::string&) { ++heard; });
    ASSERT_TRUE(observation);
    ASSERT_TRUE(m_bus->postFiled("note", SuiteApp::plim));
    ASSERT_TRUE(eventually([&] { return queue.waiting() == 1; }));
    observation->cancel();
    EXPECT_TRUE(queue.pumpUntil([&] { return queue.waiting() == 0; }));
    EXPECT_EQ(heard, 0);
}

TEST_P(SuiteBusBackends, BadNamesAreRefusedWithASentence)
{
    auto status = m_bus->transport()->post("nodots", "x");
    ASSERT_FALSE(status);
    EXPECT_EQ(status.error().sentence, "\"nodots\" is not a valid message name; nothing was sent.");
    auto subscription = m_bus->transport()->subscribe("app.9plim.recording", [](auto&, auto&) {});
    ASSERT_FALSE(subscription);
    EXPECT_EQ(splitBusName("app.plim.recording"), (std::pair<std::string, std::string>{"app.plim", "recording"}));
    EXPECT_FALSE(splitBusName("plim.recording"));
    EXPECT_FALSE(splitBusName("app..recording"));
}

INSTANTIATE_TEST_SUITE_P(Backends, SuiteBusBackends, ::testing::Values("dbus", "loopback"));
