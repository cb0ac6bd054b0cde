#include "app/ctl_suite.h"
#include "app/plimctl.h"
#include "base/text.h"

#include "suite/suite.h"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <map>
#include <memory>
#include <mutex>
#include <ostream>
#include <poll.h>
#include <set>
#include <sstream>
#include <sys/eventfd.h>
#include <unistd.h>

namespace plim {

namespace {

// Titles and details come from other applications: line breaks and tabs become spaces
// so a listing keeps one moment a line, and any other control character (escape
// sequences, BEL) or malformed byte is shown escaped rather than sent to the terminal.
std::string oneLine(std::string text)
{
    for (char& c : text)
        if (c == '\n' || c == '\r' || c == '\t')
            c = ' ';
    return escapedText(text);
}

std::string describeMoment(const Moment& m)
{
    std::string line = formatMomentTime(m.ts) + "  " + oneLine(m.app) + "  " + oneLine(m.kind) + "  " + oneLine(m.title);
    if (m.detail && !m.detail->empty())
        line += ": " + oneLine(*m.detail);
    if (!m.entities.empty()) {
        line += "  [";
        for (size_t i = 0; i < m.entities.size(); ++i)
            line += (i ? "; " : "") + oneLine(m.entities[i].type) + ": " + oneLine(m.entities[i].name);
        line += "]";
    }
    if (m.retracts)
        line += "  (" + oneLine(m.retracts->app) + " at " + formatMomentTime(m.retracts->ts)
            + (m.retracts->source ? ", " + oneLine(*m.retracts->source) : "") + ")";
    if (m.sensitive)
        line += "  (sensitive)";
    return line;
}

constexpr const char* momentsUsage =
    "usage: plimctl moments [options]\n"
    "\n"
    "Prints the history that Plim, Tovan and Sorvel share, oldest first and newest last,\n"
    "one moment a line: instant, app, kind, title, detail and entities.\n"
    "\n"
    "options:\n"
    "  --app SLUG          only moments of this app (may be repeated)\n"
    "  --kind KIND         only moments of this kind (may be repeated); the kinds \"retracted\"\n"
    "                      and \"restored\" show the bookkeeping moments\n"
    "  --entity NAME       only moments about an entity of this name, in any case\n"
    "  --entity-type TYPE  with --entity: only entities of this type\n"
    "  --from INSTANT      only moments at or after this instant (2026-11-14T22:15:44Z)\n"
    "  --to INSTANT        only moments at or before this instant\n"
    "  --sensitive         include moments marked sensitive\n"
    "  --all               include moments that were retracted\n"
    "  --json              print a JSON array of the moments instead\n"
    "  --graph FOLDER      read this graph folder instead of $XDG_DATA_HOME/TovanSuite/graph\n";

constexpr const char* beaconUsage =
    "usage: plimctl beacon post STATE [--app SLUG] [--bus ADDRESS]\n"
    "       plimctl beacon watch [SLUG] [--check-every SECONDS] [--bus ADDRESS]\n"
    "\n"
    "The beacon tells the suite's apps whether one of them is recording.\n"
    "\n"
    "  post STATE   announces STATE on the app's beacon: \"idle\", \"paused SECONDS\" (time\n"
    "               recorded so far), \"rolling\" (from now) or \"rolling UNIX-SECONDS\"\n"
    "  watch [SLUG] prints each state the app announces (plim unless given) until\n"
    "               interrupted with Ctrl+C; a sender that vanishes without saying idle\n"
    "               is reported as gone\n"
    "\n"
    "options:\n"
    "  --app SLUG             the app whose beacon is posted: plim, tovan or sorvel (plim)\n"
    "  --check-every SECONDS  how often watch checks that a recording sender still runs (2)\n"
    "  --bus ADDRESS          a D-Bus address to use instead of the session bus\n";

std::optional<SuiteApp> suiteApp(const std::string& slug, std::ostream& err)
{
    if (auto app = suiteAppFromSlug(slug))
        return app;
    err << "\"" << slug << "\" is not one of the suite's apps (plim, tovan or sorvel); nothing was done.\n";
    return std::nullopt;
}

std::string describeState(SuiteApp app, const BeaconState& state)
{
    std::string slug(appSlug(app));
    switch (state.kind) {
    case BeaconState::Kind::idle: return slug + ": idle";
    case BeaconState::Kind::paused: {
        std::ostringstream text;
        text << slug << ": paused after " << state.elapsed << " s";
        return text.str();
    }
    case BeaconState::Kind::rolling: {
        int64_t seconds = wholeSeconds(state.anchor);
        if (seconds >= 0 && seconds < 253'402'300'800) // before the year 10000
            return slug + ": rolling since " + formatMomentTime(Moment::Instant(std::chrono::seconds(seconds)));
        return slug + ": rolling since " + std::to_string(seconds) + " s after 1970";
    }
    }
    return slug;
}

// Jobs handed from bus and watchdog threads to the thread that prints.
class Inbox {
public:
    Inbox() : m_wakeFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    ~Inbox()
    {
        if (m_wakeFd >= 0)
            ::close(m_wakeFd);
    }
    bool ok() const { return m_wakeFd >= 0; }
    int fd() const { return m_wakeFd; }

    void push(std::function<void()> job)
    {
        {
            std::lock_guard guard(m_lock);
            m_jobs.push_back(std::move(job));
        }
        uint64_t one = 1;
        (void)!::write(m_wakeFd, &one, sizeof one);
    }

    void runAll()
    {
        uint64_t count;
        (void)!::read(m_wakeFd, &count, sizeof count);
        std::deque<std::function<void()>> jobs;
        {
            std::lock_guard guard(m_lock);
            jobs.swap(m_jobs);
        }
        for (auto& job : jobs)
            job();
    }

private:
    int m_wakeFd;
    std::mutex m_lock;
    std::deque<std::function<void()>> m_jobs;
};

// SIGINT and SIGTERM become a readable pipe while the object lives.
int stopPipe[2] = {-1, -1};

void onSuiteStopSignal(int)
{
    char byte = 1;
    (void)!::write(stopPipe[1], &byte, 1);
}

class StopSignals {
public:
    StopSignals()
    {
        if (::pipe2(stopPipe, O_CLOEXEC | O_NONBLOCK) < 0)
            return;
        struct sigaction action{};
        action.sa_handler = onSuiteStopSignal;
        sigemptyset(&action.sa_mask);
        m_installed = ::sigaction(SIGINT, &action, &m_oldInt) == 0 && ::sigaction(SIGTERM, &action, &m_oldTerm) == 0;
    }
    ~StopSignals()
    {
        if (m_installed) {
            ::sigaction(SIGINT, &m_oldInt, nullptr);
            ::sigaction(SIGTERM, &m_oldTerm, nullptr);
        }
        for (int& fd : stopPipe)
            if (fd >= 0) {
                ::close(fd);
                fd = -1;
            }
    }
    bool ok() const { return m_installed; }
    int fd() const { return stopPipe[0]; }

private:
    bool m_installed = false;
    struct sigaction m_oldInt{}, m_oldTerm{};
};

Result<SuiteBus> connectBus(const CtlOptions& parsed)
{
    return SuiteBus::connectSession(parsed.last("--bus"));
}

int postBeacon(const CtlOptions& parsed, std::ostream& out, std::ostream& err)
{
    SuiteApp app = SuiteApp::plim;
    if (auto slug = parsed.last("--app")) {
        auto chosen = suiteApp(*slug, err);
        if (!chosen)
            return 1;
        app = *chosen;
    }
    std::vector<std::string> words(parsed.positional.begin() + 1, parsed.positional.end());
    std::string payload;
    for (const auto& word : words)
        payload += (payload.empty() ? "" : " ") + word;
    if (words.size() == 1 && words[0] == "rolling") {
        auto now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
        payload = "rolling " + std::to_string(wholeSeconds(now));
    }
    auto state = BeaconState::parse(payload);
    if (!state) {
        err << "\"" << payload
            << "\" is not a beacon state: use idle, paused SECONDS, rolling or rolling UNIX-SECONDS. Nothing was "
               "sent.\n";
        return 1;
    }
    auto bus = connectBus(parsed);
    if (!bus) {
        err << bus.error().sentence << "\n";
        return 1;
    }
    auto posted = bus->postBeacon(*state, app);
    if (posted)
        posted = bus->flush();
    if (!posted) {
        err << posted.error().sentence << "\n";
        return 1;
    }
    out << "Posted \"" << state->wirePayload() << "\" on the " << appSlug(app) << " beacon.\n";
    return 0;
}

int watchBeacon(const CtlOptions& parsed, std::ostream& out, std::ostream& err)
{
    SuiteApp app = SuiteApp::plim;
    if (parsed.positional.size() > 2) {
        err << "plimctl beacon watch takes one app at most; nothing was done. Run plimctl beacon --help to see how.\n";
        return 1;
    }
    if (parsed.positional.size() == 2) {
        auto chosen = suiteApp(parsed.positional[1], err);
        if (!chosen)
            return 1;
        app = *chosen;
    }
    double interval = 2.0;
    if (auto text = parsed.last("--check-every")) {
        auto seconds = parseSeconds(*text);
        if (!seconds || !(*seconds > 0) || *seconds > 86400) {
            err << "--check-every needs a number of seconds above 0 and up to 86400, not \"" << *text
                << "\"; nothing was done.\n";
            return 1;
        }
        interval = *seconds;
    }
    auto connected = connectBus(parsed);
    if (!connected) {
        err << connected.error().sentence << "\n";
        return 1;
    }
    SuiteBus& bus = *connected;
    StopSignals signals;
    Inbox inbox;
    if (!signals.ok() || !inbox.ok()) {
        err << "Could not prepare to watch the beacon (" << std::strerror(errno) << "); nothing was done.\n";
        return 1;
    }

    std::unique_ptr<BeaconLivenessWatchdog> watchdog;
    std::string watchedSender;
    uint64_t generation = 0; // which watchdog a "gone" report belongs to
    auto print = [&out](const std::string& line) { out << line << std::endl; };
    auto observation = bus.observeBeaconWithSender(app, [&inbox](std::function<void()> job) { inbox.push(std::move(job)); },
        [&](const BeaconState& state, const std::string& sender) {
            print(describeState(app, state));
            if (state.kind == BeaconState::Kind::idle) {
                watchdog.reset();
                return;
            }
            if (watchdog && watchedSender == sender && !watchdog->senderGone())
                return;
            watchdog.reset();
            watchedSender = sender;
            uint64_t current = ++generation;
            watchdog = std::make_unique<BeaconLivenessWatchdog>(
                app, interval, [&bus, sender] { return bus.isSenderConnected(sender); },
                [&, current] {
                    inbox.push([&, current] {
                        print(std::string(appSlug(app)) + ": gone without saying idle (treated as idle)");
                        if (current == generation)
                            watchdog.reset();
                    });
                });
            watchdog->start();
        });
    if (!observation) {
        err << observation.error().sentence << "\n";
        return 1;
    }
    print("Watching the " + std::string(appSlug(app)) + " beacon; press Ctrl+C to stop.");

    for (;;) {
        pollfd fds[2] = {{signals.fd(), POLLIN, 0}, {inbox.fd(), POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            err << "Stopped watching the beacon (" << std::strerror(errno) << ").\n";
            return 1;
        }
        if (fds[1].revents & POLLIN)
            inbox.runAll();
        if (fds[0].revents & POLLIN)
            break;
    }
    observation->cancel();
    watchdog.reset();
    return 0;
}

} // namespace

int runMomentsCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    auto options = parseCtlOptions(args, {"--app", "--kind", "--entity", "--entity-type", "--from", "--to", "--graph"},
        {"--sensitive", "--all", "--json"}, "moments");
    if (!options) {
        err << options.error().sentence << "\n";
        return 1;
    }
    const CtlOptions& parsed = *options;
    if (parsed.help) {
        out << momentsUsage;
        return 0;
    }
    if (!parsed.positional.empty()) {
        err << "plimctl moments takes options only, not \"" << parsed.positional.front()
            << "\"; nothing was read. Run plimctl moments --help to see the options.\n";
        return 1;
    }

    MomentQuery query;
    query.includeSensitive = parsed.has("--sensitive");
    if (auto apps = parsed.values.find("--app"); apps != parsed.values.end()) {
        for (const auto& slug : apps->second) {
            if (!isValidAppSlug(slug)) {
                err << invalidAppSlugSentence(slug) << " Nothing was read.\n";
                return 1;
            }
        }
        query.apps = std::set<std::string>(apps->second.begin(), apps->second.end());
    }
    if (auto kinds = parsed.values.find("--kind"); kinds != parsed.values.end())
        query.kinds = std::set<std::string>(kinds->second.begin(), kinds->second.end());
    query.entityName = parsed.last("--entity");
    query.entityType = parsed.last("--entity-type");
    if (query.entityType && !query.entityName) {
        err << "--entity-type narrows --entity, so it needs one; nothing was read.\n";
        return 1;
    }
    for (auto [name, bound] : {std::pair{"--from", &query.from}, std::pair{"--to", &query.to}}) {
        if (auto text = parsed.last(name)) {
            *bound = parseMomentTime(*text);
            if (!*bound) {
                err << name << " needs an ISO 8601 instant such as 2026-11-14T22:15:44Z, not \"" << *text
                    << "\"; nothing was read.\n";
                return 1;
            }
        }
    }

    fs::path root = parsed.last("--graph") ? fs::path(*parsed.last("--graph")) : defaultGraphFolder();
    std::error_code ec;
    auto status = fs::status(root, ec);
    if (fs::exists(status) && !fs::is_directory(status)) {
        err << "The graph folder " << root.string() << " is not a folder; nothing was read and it was left as it is.\n";
        return 1;
    }
    if (fs::is_directory(status)) {
        fs::directory_iterator probe(root, ec);
        if (ec) {
            err << "Could not read the graph folder " << root.string() << " (" << ec.message()
                << "); nothing was read and it was left as it is.\n";
            return 1;
        }
    }

    SuiteGraphReader reader(root);
    std::vector<StreamFileIssue> issues;
    auto moments = reader.moments(query, !parsed.has("--all")).collect(&issues);

    if (parsed.has("--json")) {
        out << "[";
        bool first = true;
        for (const auto& moment : moments) {
            // Decoded moments were valid UTF-8 when read, so they encode again.
            if (auto line = moment.jsonLine()) {
                out << (first ? "\n  " : ",\n  ") << *line;
                first = false;
            }
        }
        out << (first ? "]\n" : "\n]\n");
    } else if (moments.empty()) {
        out << "No moments match.\n";
    } else {
        for (const auto& moment : moments)
            out << describeMoment(moment) << "\n";
    }

    bool unreadable = false;
    for (const auto& issue : issues) {
        err << issue.sentence() << "\n";
        unreadable = unreadable || issue.unreadable.has_value();
    }
    return unreadable ? 1 : 0;
}

int runBeaconCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    auto options = parseCtlOptions(args, {"--app", "--bus", "--check-every"}, {}, "beacon");
    if (!options) {
        err << options.error().sentence << "\n";
        return 1;
    }
    const CtlOptions& parsed = *options;
    if (parsed.help) {
        out << beaconUsage;
        return 0;
    }
    if (parsed.positional.empty()) {
        err << "plimctl beacon needs post or watch; nothing was done. Run plimctl beacon --help to see how.\n";
        return 1;
    }
    const std::string& action = parsed.positional.front();
    if (action == "post")
        return postBeacon(parsed, out, err);
    if (action == "watch")
        return watchBeacon(parsed, out, err);
    err << "plimctl beacon has no action \"" << action
        << "\"; use post or watch. Nothing was done. Run plimctl beacon --help to see how.\n";
    return 1;
}

} // namespace plim
