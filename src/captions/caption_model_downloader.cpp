#include "captions/caption_model_downloader.h"

#include "base/log.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>

namespace plim {

namespace {

double steadySeconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void waitOrStop(double seconds, StopToken stop)
{
    std::mutex mutex;
    std::condition_variable_any wake;
    std::unique_lock lock(mutex);
    wake.wait_for(lock, stop, std::chrono::duration<double>(seconds), [] { return false; });
}

int64_t fileLength(const fs::path& path)
{
    std::error_code ec;
    auto bytes = fs::file_size(path, ec);
    return ec ? 0 : int64_t(bytes);
}

} // namespace

std::string captionModelStatusLine(const CaptionModelSize& size, const CaptionModelProgress& progress)
{
    if (progress.phase == CaptionModelProgress::Phase::preparing)
        return CaptionModelText::preparing;
    std::string line = "Downloading " + size.title + ": " + CaptionModelText::size(progress.done) + " of "
        + CaptionModelText::size(progress.total);
    if (progress.retryNote)
        return line + ". " + *progress.retryNote;
    if (progress.rate)
        line += ", " + CaptionModelText::rate(*progress.rate);
    if (auto left = CaptionModelText::remaining(progress.total - progress.done, progress.rate))
        line += ", " + *left;
    if (progress.phase == CaptionModelProgress::Phase::checking)
        line += ", checking the file";
    return line;
}

CaptionModelDownloader::CaptionModelDownloader(CaptionModelStore store, CaptionModelSize size,
    CaptionModelHosts hosts, CaptionModelServices services)
    : m_store(std::move(store))
    , m_size(std::move(size))
    , m_hosts(std::move(hosts))
    , m_services(std::move(services))
{
    if (!m_services.transport)
        m_services.transport = makeCurlCaptionTransport();
    if (!m_services.openFile)
        m_services.openFile = openCaptionModelFile;
    if (!m_services.freeBytes)
        m_services.freeBytes = [store = m_store] { return store.freeBytes(); };
    if (!m_services.sleep)
        m_services.sleep = waitOrStop;
    if (!m_services.now)
        m_services.now = steadySeconds;
}

Outcome<fs::path> CaptionModelDownloader::failWith(CaptionModelFailure failure)
{
    logLine(LogArea::captions, failure.logMessage());
    auto outcome = Outcome<fs::path>::failed(failure.message());
    m_failure = std::move(failure);
    return outcome;
}

Outcome<fs::path> CaptionModelDownloader::paused()
{
    const int64_t done = m_store.bytesOnDisk(m_size);
    logLine(LogArea::captions, "model download paused by the person (at " + std::to_string(done) + " of "
            + std::to_string(m_size.totalBytes()) + " bytes in " + m_store.folder(m_size).string() + ")");
    return Outcome<fs::path>::stopped("Paused at " + CaptionModelText::size(done) + " of "
        + CaptionModelText::size(m_size.totalBytes()) + CaptionModelText::pausedTail);
}

void CaptionModelDownloader::report(bool force)
{
    const double now = m_services.now();
    m_progress.rate = m_rate.sample(m_progress.done, now);
    // Another process asks for a pause through a file beside the download.
    if (m_pause && (force || m_lastPauseCheck < 0 || now - m_lastPauseCheck >= 0.5)) {
        m_lastPauseCheck = now;
        std::error_code ec;
        if (fs::remove(m_store.pauseRequestPath(m_size), ec))
            m_pause->request_stop();
    }
    if (!m_onProgress || !*m_onProgress)
        return;
    if (!force && m_lastReport >= 0 && now - m_lastReport < 0.1)
        return;
    m_lastReport = now;
    (*m_onProgress)(m_progress);
}

CaptionModelDownloader::Fetched CaptionModelDownloader::fetchFile(const CaptionModelFile& file, int64_t doneBefore, StopToken stop)
{
    const fs::path path = m_store.filePath(m_size, file);
    const std::string url = m_hosts.url(file);
    size_t retries = 0;
    for (;;) {
        auto sink = m_services.openFile(path);
        if (!sink) {
            failWith({CaptionModelFailure::Kind::cannotWrite, sink.error().sentence + ", " + path.string()});
            return Fetched::failed;
        }
        const int64_t before = (*sink)->length();
        m_rate.restart();
        auto progress = [&](int64_t length) {
            m_progress.done = doneBefore + length;
            if (length > before)
                m_progress.retryNote.reset();
            report(false);
        };
        auto fetched = m_services.transport->fetch(url, **sink, progress, stop);
        const int64_t after = (*sink)->length();
        sink->reset();
        m_progress.done = doneBefore + after;
        if (fetched && after >= file.size)
            return Fetched::whole;
        if (stop.stop_requested())
            return Fetched::stopped;
        CaptionTransportError error = fetched ? CaptionTransportError{CaptionTransportError::Kind::dropped, 0,
            "the server ended the file at byte " + std::to_string(after) + " of " + std::to_string(file.size)}
                                              : fetched.error();
        using Kind = CaptionTransportError::Kind;
        switch (error.kind) {
        case Kind::stopped:
            return Fetched::stopped;
        case Kind::http:
            failWith({CaptionModelFailure::Kind::serverRefused, file.path, error.status});
            return Fetched::failed;
        case Kind::write:
            failWith({CaptionModelFailure::Kind::cannotWrite, error.reason + ", " + path.string()});
            return Fetched::failed;
        case Kind::dropped:
        case Kind::unreachable:
            break;
        }
        if (after > before)
            retries = 0; // it moved on: the pauses start again from the shortest
        if (retries >= m_services.retryPauses.size()) {
            failWith({CaptionModelFailure::Kind::offline, error.reason + ", " + file.path});
            return Fetched::failed;
        }
        const double pause = m_services.retryPauses[retries++];
        logLine(LogArea::captions, "model download interrupted, retrying (" + error.reason + ")");
        m_progress.retryNote = "Connection dropped, trying again in " + std::to_string(std::llround(pause)) + " s";
        report(true);
        m_services.sleep(pause, stop);
        if (stop.stop_requested())
            return Fetched::stopped;
    }
}

Outcome<fs::path> CaptionModelDownloader::run(StopToken callerStop, const std::function<void(const CaptionModelProgress&)>& onProgress)
{
    m_failure.reset();
    auto lock = CaptionModelDownloadLock::acquire(m_store, m_size);
    if (!lock)
        return Outcome<fs::path>::failed(lock.error().sentence);
    std::error_code ec;
    fs::remove(m_store.pauseRequestPath(m_size), ec); // a request left from a download that ended
    if (m_store.isReady(m_size))
        return Outcome<fs::path>::finished(m_store.folder(m_size));
    fs::remove(m_store.markerPath(m_size), ec);

    std::stop_source pause;
    std::stop_callback forward(callerStop, [&pause] { pause.request_stop(); });
    const StopToken stop = pause.get_token();
    m_pause = &pause;
    m_onProgress = &onProgress;
    m_progress = {};
    m_progress.total = m_size.totalBytes();
    m_lastReport = m_lastPauseCheck = -1;
    struct Reset {
        CaptionModelDownloader* self;
        ~Reset() { self->m_pause = nullptr; self->m_onProgress = nullptr; }
    } reset{this};

    // Whatever does not fit must not start: a half-written model helps nobody.
    int64_t needed = 0;
    for (const auto& file : m_size.files) {
        const int64_t present = fileLength(m_store.filePath(m_size, file));
        needed += present > file.size ? file.size : file.size - present;
    }
    if (auto available = m_services.freeBytes(); available && needed > *available)
        return failWith({CaptionModelFailure::Kind::noSpace, {}, 0, needed, *available});

    int64_t done = 0;
    for (const auto& file : m_size.files) {
        const fs::path path = m_store.filePath(m_size, file);
        m_progress.file = file.path;
        for (int damaged = 0;;) {
            if (fileLength(path) > file.size)
                fs::remove(path, ec); // longer than the file can be: not a part of it
            if (fileLength(path) < file.size) {
                m_progress.phase = CaptionModelProgress::Phase::downloading;
                switch (fetchFile(file, done, stop)) {
                case Fetched::whole: break;
                case Fetched::stopped: return paused();
                case Fetched::failed: return Outcome<fs::path>::failed(m_failure->message());
                }
            }
            m_progress.phase = CaptionModelProgress::Phase::checking;
            m_progress.done = done + fileLength(path);
            report(true);
            auto digest = captionModelDigest(path, file, stop);
            if (!digest && digest.error().kind == Error::Kind::stopped)
                return paused();
            if (!digest)
                return failWith({CaptionModelFailure::Kind::cannotWrite, digest.error().sentence + ", " + path.string()});
            if (*digest == file.check && fileLength(path) == file.size)
                break;
            fs::remove(path, ec);
            if (++damaged == 2)
                return failWith({CaptionModelFailure::Kind::damagedTwice, file.path});
            logLine(LogArea::captions, "model file failed its checksum, fetching it again (" + file.path + ")");
        }
        done += file.size;
        if (stop.stop_requested())
            return paused();
    }

    m_progress.phase = CaptionModelProgress::Phase::preparing;
    m_progress.done = done;
    m_progress.retryNote.reset();
    report(true);
    if (m_services.prepare) {
        if (auto prepared = m_services.prepare(m_store.folder(m_size)); !prepared)
            return failWith({CaptionModelFailure::Kind::wontLoad, prepared.error().sentence});
    }
    if (auto marked = m_store.writeMarker(m_size); !marked)
        return failWith({CaptionModelFailure::Kind::cannotWrite, marked.error().sentence + ", " + m_store.markerPath(m_size).string()});
    logLine(LogArea::captions, "model ready at " + m_store.folder(m_size).string());
    return Outcome<fs::path>::finished(m_store.folder(m_size));
}

} // namespace plim
