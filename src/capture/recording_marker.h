#pragma once
// The marker beside a movie while it is being recorded (B.mov -> B.rolling.json): which
// process is writing it, so that a later start tells a recording still rolling in another
// process from one whose process was killed or lost with the power. It is written before
// the movie is created and removed once everything of the plim is finished.

#include "base/error.h"

#include <filesystem>
#include <optional>
#include <string>

namespace plim {

struct RecordingMarker {
    // Rolling until the recording is stopped; finishing while its files are completed.
    enum class Phase { rolling, finishing };

    int64_t pid = 0;
    std::optional<int64_t> processStart; // the process's start in clock ticks after boot
    std::string bootID;                  // the boot it was written in
    bool keys = false;                   // keys pressed were being recorded
    Phase phase = Phase::rolling;        // a marker without one is read as rolling

    // The marker for this process.
    static RecordingMarker ofThisProcess(bool keys);

    // B.mov -> B.rolling.json, and back (nothing when the name is not a marker's).
    static std::filesystem::path fileBeside(const std::filesystem::path& movie);
    static std::optional<std::filesystem::path> movieOf(const std::filesystem::path& marker);

    // Writes the marker atomically beside the movie.
    Status write(const std::filesystem::path& movie) const;
    // Reads a marker; fails `missing` or `unreadable` with a short reason ("it is not JSON").
    static Result<RecordingMarker> read(const std::filesystem::path& marker);
    static void remove(const std::filesystem::path& movie);
    // Rewrites the marker beside `movie` as finishing; nothing when there is none.
    static Status markFinishing(const std::filesystem::path& movie);

    // Whether the process that wrote it still runs: same boot, the pid alive and, where
    // known, started at the same tick (a pid used again is another process).
    bool processIsAlive() const;
};

} // namespace plim
