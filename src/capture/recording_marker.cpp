#include "capture/recording_marker.h"

#include "base/files.h"
#include "base/json.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>

namespace plim {

namespace {

constexpr std::string_view markerSuffix = ".rolling.json";

std::string currentBootID()
{
    auto bytes = readFileBytes("/proc/sys/kernel/random/boot_id", 4096);
    if (!bytes)
        return {};
    std::string id = *bytes;
    while (!id.empty() && (id.back() == '\n' || id.back() == ' '))
        id.pop_back();
    return id;
}

// Field 22 of /proc/PID/stat; the command name (field 2) may hold spaces and brackets.
std::optional<int64_t> processStartTicks(int64_t pid)
{
    auto stat = readFileBytes("/proc/" + std::to_string(pid) + "/stat", 65536);
    if (!stat)
        return std::nullopt;
    size_t close = stat->rfind(')');
    if (close == std::string::npos)
        return std::nullopt;
    std::istringstream fields(stat->substr(close + 1));
    std::string field;
    for (int i = 3; i <= 22; ++i)
        if (!(fields >> field))
            return std::nullopt;
    try {
        return std::stoll(field);
    } catch (...) {
        return std::nullopt;
    }
}

} // namespace

RecordingMarker RecordingMarker::ofThisProcess(bool keys)
{
    RecordingMarker marker;
    marker.pid = ::getpid();
    marker.processStart = processStartTicks(marker.pid);
    marker.bootID = currentBootID();
    marker.keys = keys;
    return marker;
}

fs::path RecordingMarker::fileBeside(const fs::path& movie) { return sidecarPath(movie, PlimFiles::rolling); }

std::optional<fs::path> RecordingMarker::movieOf(const fs::path& marker)
{
    std::string name = marker.filename().string();
    if (name.size() <= markerSuffix.size() || !name.ends_with(markerSuffix))
        return std::nullopt;
    return marker.parent_path() / (name.substr(0, name.size() - markerSuffix.size()) + ".mov");
}

Status RecordingMarker::write(const fs::path& movie) const
{
    Json json = {{"bootID", bootID}, {"keys", keys}, {"phase", phase == Phase::finishing ? "finishing" : "rolling"},
        {"pid", pid}};
    if (processStart)
        json["processStart"] = *processStart;
    return writeJsonAtomic(fileBeside(movie), json);
}

Result<RecordingMarker> RecordingMarker::read(const fs::path& marker)
{
    auto bytes = readFileBytes(marker, 65536);
    if (!bytes)
        return std::unexpected(bytes.error());
    auto json = parseJson(*bytes);
    if (!json || !json->is_object())
        return fail("it is not a JSON object", Error::Kind::unreadable);
    RecordingMarker read;
    auto pid = jsonInteger(*json, "pid");
    if (!pid || *pid <= 0)
        return fail("it names no process", Error::Kind::unreadable);
    read.pid = *pid;
    read.processStart = jsonInteger(*json, "processStart");
    read.bootID = jsonString(*json, "bootID").value_or("");
    read.keys = jsonBool(*json, "keys").value_or(false);
    if (jsonString(*json, "phase") == "finishing")
        read.phase = Phase::finishing;
    return read;
}

void RecordingMarker::remove(const fs::path& movie)
{
    std::error_code ignored;
    fs::remove(fileBeside(movie), ignored);
}

Status RecordingMarker::markFinishing(const fs::path& movie)
{
    auto marker = read(fileBeside(movie));
    if (!marker && marker.error().kind == Error::Kind::missing)
        return {};
    if (!marker)
        return std::unexpected(marker.error());
    marker->phase = Phase::finishing;
    return marker->write(movie);
}

bool RecordingMarker::processIsAlive() const
{
    if (!bootID.empty() && bootID != currentBootID())
        return false;
    if (pid > INT32_MAX || (::kill(static_cast<pid_t>(pid), 0) != 0 && errno != EPERM))
        return false;
    if (!processStart)
        return true;
    auto started = processStartTicks(pid);
    return !started || *started == *processStart;
}

} // namespace plim
