#include "app/ctl_share.h"

#include "base/text.h"
#include "app/interrupt_stop.h"

#include "app/ctl_stage.h"
#include "base/dates.h"
#include "base/json.h"
#include "base/log.h"
#include "base/places.h"
#include "capture/desktop.h"
#include "library/library.h"
#include "media/media.h"
#include "share/share.h"
#include "stage/stage.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <ostream>
#include <thread>

namespace plim {

namespace {

const char* shareUsage =
    "usage: plimctl share <movie> [options]\n\n"
    "Shares the plim as a movie, a GIF or a copy of the recording, staged in its look (changed\n"
    "by the look options of plimctl stage). The file gets a name of its own in the folder;\n"
    "nothing is written under it unless the share finishes. Ctrl-C stops.\n\n"
    "  --kind K          video (default), gif or original\n"
    "  --quality Q       720p, 1080p (default) or 4K; for a GIF Small, Medium (default) or Large\n"
    "  --to FOLDER       where the file goes (default: the current folder)\n"
    "  --copy            write into the copies folder and put the file on the clipboard\n"
    "  --backdrop, --padding, --corners, --shadow, --click-style, --click-tint, --zoom-style,\n"
    "  --captions, --caption-look, --caption-size, --caption-place, --shape   as for plimctl stage\n";

std::string_view mark(ShareStage::State state)
{
    switch (state) {
    case ShareStage::State::waiting: return " ";
    case ShareStage::State::now: return ">";
    case ShareStage::State::done: return "x";
    case ShareStage::State::skipped: return "-";
    case ShareStage::State::failed: return "!";
    }
    return " ";
}

// The checklist and bar, redrawn in place on a terminal.
class Checklist {
public:
    explicit Checklist(std::ostream& out) : m_out(out) {}
    void draw(const ShareProgress& p, bool force = false)
    {
        auto now = std::chrono::steady_clock::now();
        if (!force && now - m_drawn < std::chrono::milliseconds(100))
            return;
        m_drawn = now;
        std::string text;
        if (m_lines > 0)
            text += "\x1b[" + std::to_string(m_lines) + "F";
        int lines = 0;
        for (const ShareStage& stage : p.stages) {
            if (stage.skips && stage.id == ShareStage::ID::copyOriginal)
                continue;
            text += "\x1b[2K[" + std::string(mark(stage.state)) + "] " + stage.title
                + (stage.detail.empty() ? "" : "  · " + stage.detail) + "\n";
            ++lines;
        }
        const int filled = static_cast<int>(std::clamp(p.fraction, 0.0, 1.0) * 30);
        std::string bar(static_cast<size_t>(filled), '#');
        bar.resize(30, '-');
        char percent[16];
        std::snprintf(percent, sizeof percent, "%3d%%", static_cast<int>(p.fraction * 100));
        text += "\x1b[2K[" + bar + "] " + percent + "  " + p.footline + "\n";
        m_lines = lines + 1;
        m_out << text << std::flush;
    }

private:
    std::ostream& m_out;
    int m_lines = 0;
    std::chrono::steady_clock::time_point m_drawn{};
};

// Plain lines for logs and pipes: one a stage change, one a tenth of the frames.
class PlainProgress {
public:
    explicit PlainProgress(std::ostream& out) : m_out(out) {}
    void draw(const ShareProgress& p)
    {
        for (const ShareStage& stage : p.stages) {
            auto& seen = m_states[static_cast<int>(stage.id)];
            if (seen != stage.state && stage.state != ShareStage::State::waiting) {
                seen = stage.state;
                m_out << ShareStage::name(stage.id) << ": " << ShareStage::name(stage.state) << " · " << stage.title
                      << (stage.detail.empty() ? "" : " · " + stage.detail) << "\n";
            }
        }
        const int tenth = static_cast<int>(p.fraction * 10);
        if (p.framesTotal > 0 && tenth > m_tenth) {
            m_tenth = tenth;
            m_out << "frames " << p.framesDone << " of " << p.framesTotal << " (" << tenth * 10 << "%)\n";
        }
        m_out << std::flush;
    }

private:
    std::ostream& m_out;
    std::map<int, ShareStage::State> m_states;
    int m_tenth = 0;
};

} // namespace

int runShareCommand(const CtlArgs& args, std::ostream& out, std::ostream& err)
{
    auto names = stageLookOptions();
    names.insert({"--kind", "--quality", "--to"});
    auto options = parseCtlOptions(args, names, {"--copy"}, "share");
    if (!options) {
        err << options.error().sentence << "\n";
        return 1;
    }
    if (options->help) {
        out << shareUsage;
        return 0;
    }
    if (options->positional.size() != 1) {
        err << "plimctl share: name one plim's movie, for example plimctl share demo/Demo.mov.\n";
        return 1;
    }
    const fs::path movie = options->positional.front();
    ShareKind kind = ShareKind::video;
    if (auto v = options->last("--kind")) {
        auto parsed = parseShareKind(*v);
        if (!parsed) {
            err << "plimctl share: \"" << *v << "\" is not a kind of share. Use video, gif or original; nothing was saved.\n";
            return 1;
        }
        kind = *parsed;
    }
    ShareQuality quality = ShareQuality::p1080;
    if (auto v = options->last("--quality")) {
        auto parsed = parseShareQuality(*v);
        if (!parsed) {
            err << "plimctl share: \"" << *v << "\" is not a quality. Use 720p, 1080p or 4K (for a GIF Small, Medium or "
                   "Large); nothing was saved.\n";
            return 1;
        }
        quality = *parsed;
    }
    if (options->has("--copy") && options->last("--to")) {
        err << "plimctl share: choose --to FOLDER or --copy, not both; nothing was saved.\n";
        return 1;
    }
    ShareDestination to = options->has("--copy") ? ShareDestination::copy()
                                                 : ShareDestination::save(options->last("--to").value_or(fs::current_path().string()));
    if (to.folder && !fs::is_directory(*to.folder)) {
        err << "plimctl share: there is no folder at " << to.folder->string() << ". Nothing was saved; name a folder that exists.\n";
        return 1;
    }
    // The look options are checked before anything is read.
    {
        StageSpec spec;
        PlimLook look;
        if (auto problem = applyStageLook(*options, spec, look, "share")) {
            err << problem->sentence << "\n";
            return 1;
        }
    }
    ShareEngine::Tuning tuning;
    tuning.adjustJob = [&](StagingJob& job) { applyStageLook(*options, job.spec, job.look, "share"); };

    ShareEngine engine(ShareEngine::Environment::desktop());
    const bool terminal = isatty(STDOUT_FILENO);
    Checklist checklist(out);
    PlainProgress plain(out);
    std::mutex drawing;
    engine.onProgress = [&](const ShareProgress& p) {
        std::lock_guard lock(drawing);
        if (terminal)
            checklist.draw(p);
        else
            plain.draw(p);
    };

    ShareOutcome outcome = [&] {
        InterruptStop interrupt([&] { engine.stop(); });
        return engine.share(movie, kind, quality, to, tuning);
    }();
    if (terminal) {
        std::lock_guard lock(drawing);
        checklist.draw(engine.progress(), true);
    }

    for (const std::string& notice : outcome.notices)
        err << "notice: " << notice << "\n";
    switch (outcome.kind) {
    case ShareOutcome::Kind::finished:
        if (outcome.note)
            out << *outcome.note << "\n";
        out << outcome.url.string() << " (" << ShareOptions::sizeText(outcome.bytes) << ")\n";
        return 0;
    case ShareOutcome::Kind::stopped:
        err << outcome.sentence << "\n";
        return 1;
    case ShareOutcome::Kind::failed:
        err << "plimctl share: " << outcome.sentence << "\n";
        return 1;
    }
    return 1;
}

int runListCommand(const CtlArgs& args, std::ostream& out, std::ostream& err)
{
    auto options = parseCtlOptions(args, {"--folder"}, {"--json"}, "list");
    if (!options) {
        err << options.error().sentence << "\n";
        return 1;
    }
    if (options->help) {
        out << "usage: plimctl list [--folder FOLDER] [--json]\n\nThe plims in the library folder, newest first: name, "
               "date, length, size, and whether each has a staged movie and a camera.\n";
        return 0;
    }
    const fs::path folder = options->last("--folder").value_or(StorageRoot::direct(Places::home()).folder().string());
    if (!fs::is_directory(folder)) {
        err << "plimctl list: there is no plims folder at " << folder.string() << ".\n";
        return 1;
    }
    PlimStore store(folder);
    store.refresh();
    for (const std::string& notice : store.takeNotices())
        err << "notice: " << notice << "\n";
    // Each record is printed as soon as its movie is known, so a listing that has to open
    // many movies shows them as it goes; the cache spares opening movies seen before.
    ListingCache cache;
    const bool json = options->has("--json");
    bool first = true;
    if (json)
        out << "[";
    for (const PlimRecord& record : store.plims()) {
        const fs::path movie = record.rawURL ? *record.rawURL : *record.stagedURL;
        const double length = cache.facts(movie).value_or(ListingCache::Facts{}).duration;
        const int64_t bytes = record.rawBytes + record.stagedBytes + record.cameraBytes;
        if (json) {
            // JSON holds only UTF-8: a name that is not goes out with its odd bytes escaped.
            auto text = [](const std::string& s) { return isValidUtf8(s) ? s : escapedText(s); };
            out << (first ? "\n  " : ",\n  ")
                << Json{{"name", text(record.id)}, {"date", iso8601(record.createdAt)}, {"length", length},
                       {"bytes", bytes}, {"staged", record.stagedURL.has_value()}, {"camera", record.cameraURL.has_value()},
                       {"movie", text(movie.string())},
                       {"identity", record.identity ? Json(text(*record.identity)) : Json(nullptr)}}
                       .dump();
        } else {
            out << escapedText(record.id) << "  " << iso8601(record.createdAt) << "  " << ShareOptions::clock(length) << "  "
                << ShareOptions::sizeText(bytes) << (record.stagedURL ? "  staged" : "") << (record.cameraURL ? "  camera" : "")
                << "\n";
        }
        out << std::flush;
        first = false;
    }
    if (json)
        out << (first ? "]\n" : "\n]\n");
    if (auto saved = cache.save(); !saved)
        logLine("Plim: the listing cache could not be saved (" + saved.error().sentence + "); the next listing opens the movies again.");
    return 0;
}

int runThumbsCommand(const CtlArgs& args, std::ostream& out, std::ostream& err)
{
    auto options = parseCtlOptions(args, {}, {"--poster-only"}, "thumbs");
    if (!options) {
        err << options.error().sentence << "\n";
        return 1;
    }
    if (options->help || options->positional.size() != 1) {
        (options->help ? out : err) << "usage: plimctl thumbs <movie> [--poster-only]\n\nDraws the plim's thumbnail strip "
                                       "and poster as the staged picture shows them into B.thumbs.heic.\n";
        return options->help ? 0 : 1;
    }
    const fs::path movie = options->positional.front();
    auto drawn = PlimThumbs::draw(movie, desktopWallpaper(), options->has("--poster-only"));
    if (!drawn) {
        err << "plimctl thumbs: " << drawn.error().sentence << "\n";
        return 1;
    }
    if (auto stored = PlimThumbs::store(*drawn, movie); !stored) {
        err << "plimctl thumbs: " << stored.error().sentence << "\n";
        return 1;
    }
    out << PlimThumbs::pathFor(movie).string() << "\n";
    return 0;
}

} // namespace plim
