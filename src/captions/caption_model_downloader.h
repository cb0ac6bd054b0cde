#pragma once
// Downloads one model size into the store: checks the free space, fetches each file that
// is not yet whole and verified (resuming a partial one), checks its digest (a damaged file
// is fetched once more, a second damage stops), retries a dropped connection after a
// pause, and finally prepares the model once and writes the ready marker.
//
// run() works on the calling thread (a worker, never the interface's) and reports progress
// through its callback on that thread. A stop request or a pause request from another
// process (CaptionModelStore::requestPause) pauses it: what came down stays, and the next
// run picks up at the byte where it stopped.

#include "base/error.h"
#include "captions/caption_model_manifest.h"
#include "captions/caption_model_store.h"
#include "captions/caption_model_text.h"
#include "captions/caption_model_transport.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace plim {

struct CaptionModelProgress {
    enum class Phase { downloading, checking, preparing };
    Phase phase = Phase::downloading;
    std::string file;            // the file being fetched or checked
    int64_t done = 0;            // bytes of the size's files on disk
    int64_t total = 0;
    std::optional<double> rate;  // bytes per second
    std::optional<std::string> retryNote; // "Connection dropped, trying again in 5 s"
    bool operator==(const CaptionModelProgress&) const = default;
};

// One line for a progress display: "Downloading Whisper base: 52 MB of 145 MB, 2.1 MB/s,
// about 1 min left", ", checking the file" while a digest is read, the preparing sentence
// while the model loads.
std::string captionModelStatusLine(const CaptionModelSize& size, const CaptionModelProgress& progress);

struct CaptionModelServices {
    std::shared_ptr<CaptionModelTransport> transport;
    CaptionModelSinkOpener openFile = openCaptionModelFile;
    // Free bytes where the store is; unset: the store's own volume.
    std::function<std::optional<int64_t>()> freeBytes;
    // Loads the model in the folder once, so the first transcription does not pay for it.
    std::function<Status(const fs::path& folder)> prepare;
    // Waits before a retry; returns early when stopped. Unset: a real wait.
    std::function<void(double seconds, StopToken stop)> sleep;
    // Steady seconds for the rate; unset: the monotonic clock.
    std::function<double()> now;
    // One pause per retry in a row without new bytes; when they run out the download stops.
    std::vector<double> retryPauses = {2, 5, 15, 30};
};

class CaptionModelDownloader {
public:
    CaptionModelDownloader(CaptionModelStore store, CaptionModelSize size, CaptionModelHosts hosts,
        CaptionModelServices services);

    // Finished with the model's folder; failed with the failure's sentence (see failure());
    // stopped with the paused sentence ("Paused at 52 MB of 145 MB. Resume picks up ...").
    Outcome<fs::path> run(StopToken stop, const std::function<void(const CaptionModelProgress&)>& onProgress = {});

    // Why the last run failed, when it failed with one of the download's failures.
    const std::optional<CaptionModelFailure>& failure() const { return m_failure; }

private:
    enum class Fetched { whole, stopped, failed };
    Outcome<fs::path> failWith(CaptionModelFailure failure);
    Outcome<fs::path> paused();
    Fetched fetchFile(const CaptionModelFile& file, int64_t doneBefore, StopToken stop);
    void report(bool force);

    CaptionModelStore m_store;
    CaptionModelSize m_size;
    CaptionModelHosts m_hosts;
    CaptionModelServices m_services;
    std::optional<CaptionModelFailure> m_failure;

    // State of the running download.
    const std::function<void(const CaptionModelProgress&)>* m_onProgress = nullptr;
    std::stop_source* m_pause = nullptr;
    CaptionModelProgress m_progress;
    RateMeter m_rate;
    double m_lastReport = -1;
    double m_lastPauseCheck = -1;
};

} // namespace plim
