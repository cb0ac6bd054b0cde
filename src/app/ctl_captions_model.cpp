#include "app/ctl_captions_model.h"

#include "app/interrupt_stop.h"
#include "app/plimctl.h"
#include "captions/whisper_transcriber.h"
#include "base/settings.h"

#include <chrono>
#include <iostream>
#include <ostream>
#include <thread>
#include <unistd.h>

namespace plim {

namespace {

constexpr const char* usage =
    "usage: plimctl captions-model download|pause|delete|status [--size base|small]\n"
    "\n"
    "The Whisper model that makes better captions on this computer.\n"
    "  download  fetch the model, or go on from where an earlier download stopped;\n"
    "            Ctrl-C pauses it. With --size, captions use that size once it is ready.\n"
    "  pause     pause the download running in another terminal or in Plim\n"
    "  delete    remove the downloaded model\n"
    "  status    say which sizes are downloaded\n"
    "--size picks the model (base or small); without it, the size captions use.\n"
    "PLIM_MODEL_BASE_URL fetches the files from another server (a mirror).\n";

// A progress bar redrawn in place on a terminal, else a line at each tenth, each stage and
// every two seconds.
class ProgressDisplay {
public:
    ProgressDisplay(std::ostream& err, const CaptionModelSize& size)
        : m_err(err), m_size(size), m_terminal(&err == &std::cerr && isatty(STDERR_FILENO)) {}

    void draw(const CaptionModelProgress& p)
    {
        const std::string line = captionModelStatusLine(m_size, p);
        const int percent = p.total > 0 ? int(p.done * 100 / p.total) : 0;
        if (m_terminal) {
            constexpr int width = 24;
            const int filled = percent * width / 100;
            std::string bar = "[" + std::string(size_t(filled), '#') + std::string(size_t(width - filled), '-') + "] ";
            std::string text = "\r" + bar + std::to_string(percent) + "%  " + line;
            if (text.size() < m_lastWidth)
                text += std::string(m_lastWidth - text.size(), ' ');
            m_lastWidth = text.size();
            m_err << text << std::flush;
            return;
        }
        const int tenth = percent / 10;
        const auto now = std::chrono::steady_clock::now();
        if (tenth != m_lastTenth || p.phase != m_lastPhase || p.retryNote != m_lastNote || now - m_lastLine >= std::chrono::seconds(2)) {
            m_lastTenth = tenth;
            m_lastLine = now;
            m_lastPhase = p.phase;
            m_lastNote = p.retryNote;
            m_err << line << "\n";
        }
    }

    void finish()
    {
        if (m_terminal && m_lastWidth)
            m_err << "\n";
    }

private:
    std::ostream& m_err;
    const CaptionModelSize& m_size;
    bool m_terminal;
    size_t m_lastWidth = 0;
    int m_lastTenth = -1;
    std::chrono::steady_clock::time_point m_lastLine;
    CaptionModelProgress::Phase m_lastPhase = CaptionModelProgress::Phase::downloading;
    std::optional<std::string> m_lastNote;
};

int download(const CaptionModelStore& store, const CaptionModelSize& size, bool choose, std::ostream& out, std::ostream& err)
{
    CaptionModelDownloader downloader(store, size, CaptionModelHosts::fromEnvironment(), captionModelServices());
    ProgressDisplay display(err, size);
    auto outcome = [&] {
        InterruptStop interrupt;
        return downloader.run(interrupt.token(), [&](const CaptionModelProgress& p) { display.draw(p); });
    }();
    display.finish();
    if (outcome.isStopped()) {
        err << outcome.sentence << "\n";
        return 1;
    }
    if (!outcome.isFinished()) {
        err << "plimctl captions-model: " << outcome.sentence << "\n";
        return 1;
    }
    if (choose) {
        if (auto chosen = FileSettingsStore::shared().setValue(std::string(captionModelSizeKey), size.name); !chosen)
            err << "plimctl captions-model: " << size.title << " is ready, but Plim could not choose it ("
                << chosen.error().sentence << "); captions use the size chosen before.\n";
    }
    out << CaptionModelText::downloaded << "\n" << outcome.value.string() << "\n";
    return 0;
}

int pause(const CaptionModelStore& store, const CaptionModelSize& size, std::ostream& out, std::ostream& err)
{
    if (auto asked = store.requestPause(size); !asked) {
        err << asked.error().sentence << "\n";
        return 1;
    }
    // The download looks for the request every half second or so.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    while (store.isDownloading(size) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    if (store.isDownloading(size)) {
        err << "The download of " << size.title
            << " has not paused yet; it will when it next hears from the server. Nothing was lost.\n";
        return 1;
    }
    out << "Paused the download of " << size.title << " at " << CaptionModelText::size(store.bytesOnDisk(size))
        << " of " << CaptionModelText::size(size.totalBytes()) << CaptionModelText::pausedTail << "\n";
    return 0;
}

int status(const CaptionModelStore& store, std::ostream& out)
{
    const auto chosen = chosenCaptionModelSize(FileSettingsStore::shared());
    for (const auto& size : captionModelSizes()) {
        out << size.title << (size.name == chosen.name ? " (used for captions)" : "") << ": ";
        const int64_t present = store.bytesOnDisk(size);
        if (store.isReady(size))
            out << "ready, " << CaptionModelText::size(present) << " in " << store.folder(size).string();
        else if (store.isDownloading(size))
            out << "downloading, " << CaptionModelText::size(present) << " of " << CaptionModelText::size(size.totalBytes());
        else if (present > 0)
            out << "paused at " << CaptionModelText::size(present) << " of " << CaptionModelText::size(size.totalBytes());
        else
            out << "not downloaded (" << CaptionModelText::size(size.totalBytes()) << ")";
        out << "\n";
    }
    out << (readyCaptionModelFolder(FileSettingsStore::shared()) ? CaptionModelText::downloaded : CaptionModelText::beforeDownload)
        << "\n";
    return 0;
}

} // namespace

CaptionModelServices captionModelServices()
{
    CaptionModelServices services;
    services.transport = makeCurlCaptionTransport();
    // Loading once checks that the files make a model this engine can run.
    services.prepare = [](const std::filesystem::path& folder) -> Status {
        PLIM_TRY(WhisperTranscriber::load(folder));
        return {};
    };
    return services;
}

int runCaptionsModelCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
    auto options = parseCtlOptions(args, {"--size"}, {}, "captions-model");
    if (!options) {
        err << options.error().sentence << "\n";
        return 1;
    }
    if (options->help) {
        out << usage;
        return 0;
    }
    if (options->positional.size() != 1) {
        err << usage;
        return 1;
    }
    const std::string& verb = options->positional.front();
    const auto named = options->last("--size");
    auto size = named ? captionModelSize(*named) : Result<CaptionModelSize>(chosenCaptionModelSize(FileSettingsStore::shared()));
    if (!size) {
        err << "plimctl captions-model: " << size.error().sentence << "\n";
        return 1;
    }
    const auto store = CaptionModelStore::standard();
    if (verb == "download")
        return download(store, *size, named.has_value(), out, err);
    if (verb == "pause")
        return pause(store, *size, out, err);
    if (verb == "delete") {
        if (!fs::exists(store.folder(*size))) {
            out << size->title << " is not downloaded, so there was nothing to delete.\n";
            return 0;
        }
        if (auto removed = store.remove(*size); !removed) {
            err << "plimctl captions-model: " << removed.error().sentence << "\n";
            return 1;
        }
        out << "Deleted " << size->title << ". " << CaptionModelText::beforeDownload << "\n";
        return 0;
    }
    if (verb == "status")
        return status(store, out);
    err << "plimctl captions-model: there is no \"" << verb << "\" here; use download, pause, delete or status.\n";
    return 1;
}

} // namespace plim
