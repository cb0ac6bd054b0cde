#pragma once
// ShareEngine turns one plim into a finished file: a movie, a GIF, or a copy of the
// untouched recording. It runs the share as a checklist of stages (read, edit, frames,
// captions, write, copyOriginal), publishes progress, places the file under a name of its
// own (clip.mp4, clip 2.mp4 ...) in the folder asked for or the copies folder, and ends
// with one ShareOutcome. Only one share runs at a time per engine.
//
// Threads: share() blocks its caller until the share ends (an interface runs it on a
// worker). stop(), progress(), isRunning() and outcome() may be called from any thread;
// `onProgress` is called on the render's threads and must hop to the interface itself.
// The Environment's operations are called on the thread that called share().

#include "base/error.h"
#include "share/share_options.h"
#include "share/share_progress.h"
#include "stage/staging_engine.h"
#include "stage/video_sink.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <vector>
#include <functional>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>

namespace plim {

namespace fs = std::filesystem;

struct ShareOutcome {
    enum class Kind { finished, failed, stopped };
    Kind kind = Kind::stopped;
    // finished
    fs::path url;
    int64_t bytes = 0;    // on disk
    int64_t estimate = 0; // predicted before rendering
    bool originalRemoved = false;
    std::optional<std::string> note;
    // failed (and stopped: "Stopped. Nothing was saved.")
    std::string sentence;
    // Said about the plim whatever the outcome: which plan it got, side files left out.
    std::vector<std::string> notices;

    bool operator==(const ShareOutcome&) const = default;
    static ShareOutcome failed(std::string sentence) { return {Kind::failed, {}, 0, 0, false, std::nullopt, std::move(sentence)}; }
    static ShareOutcome stopped();
};

class ShareEngine {
public:
    // What the engine asks of the desktop, injected so it runs without an interface.
    struct Environment {
        std::function<bool()> keepOriginal;                      // keep the recording after sharing?
        std::function<Status(const fs::path&)> removeOriginal;   // default: move to the Trash
        std::function<Status(const fs::path&)> copyToClipboard;  // offer the file for pasting
        std::function<std::optional<fs::path>()> wallpaperURL;   // the desktop picture
        std::function<fs::path()> copiesFolder;
        std::function<void(const std::string& kind, const std::string& path)> didShare;

        // The Linux desktop: keep the original, Trash, xclip, the desktop's picture,
        // $XDG_CACHE_HOME/Plim Copies, a log line.
        static Environment desktop();
    };

    // What the caller may adjust for one share.
    struct Tuning {
        double stallLimit = 30; // seconds
        // Changes to the stage look made on the command line, applied after reading.
        std::function<void(StagingJob&)> adjustJob;
        // Makes the render's sink (tests give a writer that stops accepting).
        std::function<Result<std::unique_ptr<VideoSink>>(const VideoSink::Settings&)> makeSink;
    };

    explicit ShareEngine(Environment environment);

    ShareOutcome share(const fs::path& movie, ShareKind kind, ShareQuality quality, const ShareDestination& to);
    ShareOutcome share(const fs::path& movie, ShareKind kind, ShareQuality quality, const ShareDestination& to, const Tuning& tuning);

    // Asks the running share to stop; the render sees it before its next frame.
    void stop();

    ShareProgress progress() const;
    bool isRunning() const { return m_running.load(); }
    std::optional<ShareOutcome> outcome() const;

    std::function<void(const ShareProgress&)> onProgress;

    static constexpr const char* busySentence =
        "This plim is already being shared. Wait for that to finish, then share again.";

private:
    ShareOutcome run(const fs::path& movie, ShareKind kind, ShareQuality quality, const ShareDestination& to, const Tuning& tuning);
    ShareOutcome copyOriginal(const fs::path& movie, const fs::path& folder);
    ShareOutcome finish(const fs::path& movie, ShareKind kind, ShareQuality quality, const ShareDestination& to,
        fs::path url, int64_t estimate, std::optional<std::string> extraNote);
    void setStage(ShareStage::ID id, ShareStage::State state, std::optional<std::string> title = std::nullopt,
        std::optional<std::string> detail = std::nullopt);
    void publish();
    ShareOutcome failStage(ShareStage::ID id, std::string sentence);

    Environment m_environment;
    std::atomic<bool> m_running{false};
    std::stop_source m_stop;
    mutable std::mutex m_lock;
    ShareProgress m_progress;
    std::vector<std::string> m_notices; // the plim's, from reading it
    std::optional<ShareOutcome> m_outcome;
};

} // namespace plim
