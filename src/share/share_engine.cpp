#include "share/share_engine.h"

#include "base/files.h"
#include "base/log.h"
#include "base/trash.h"
#include "capture/capture.h"
#include "capture/desktop.h"
#include "library/library.h"
#include "media/media.h"
#include "share/clipboard.h"
#include "share/share_failure.h"
#include "share/share_plim.h"
#include "share/share_render.h"
#include "stage/stage.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <unistd.h>

namespace plim {

namespace {

using ID = ShareStage::ID;
using State = ShareStage::State;

std::string seconds1(double seconds, const char* format)
{
    char text[64];
    std::snprintf(text, sizeof text, format, std::isfinite(seconds) ? seconds : 0.0);
    return text;
}

// A movie's pictures are written at a constant rate and its sound at the AAC encoder's
// rate or under it (silence costs little), so a movie comes out at its estimate or a
// little under. A GIF's size depends on how much of the screen moves; this is a guess.
int64_t estimateBytes(ShareKind kind, RenderRules::PixelSize canvas, int64_t frames, double seconds, bool sound)
{
    if (kind == ShareKind::gif) // a mostly still screen: about a twentieth of a byte a pixel a frame
        return static_cast<int64_t>(static_cast<double>(canvas.width) * canvas.height * std::max<int64_t>(frames, 1) * 0.05);
    const double bits = static_cast<double>(exportBitsPerSecond(canvas.width, canvas.height))
        + (sound ? static_cast<double>(MovieWriter::exportTrack().bitsPerSecond) : 0.0);
    return static_cast<int64_t>(bits * std::max(seconds, 0.0) / 8);
}

Status copyFile(const fs::path& from, const fs::path& to)
{
    std::error_code error;
    if (!fs::copy_file(from, to, fs::copy_options::none, error))
        return fail(error ? error.message() : "it could not be copied");
    return {};
}

} // namespace

ShareOutcome ShareOutcome::stopped()
{
    return {Kind::stopped, {}, 0, 0, false, std::nullopt, ShareFailure::stopped().sentence};
}

ShareEngine::Environment ShareEngine::Environment::desktop()
{
    Environment e;
    e.keepOriginal = [] { return true; };
    e.removeOriginal = [](const fs::path& movie) -> Status {
        PLIM_TRY(moveToTrash(movie));
        return {};
    };
    e.copyToClipboard = [](const fs::path& file) { return offerFileOnClipboard(file); };
    e.wallpaperURL = [] { return desktopWallpaper(); };
    e.copiesFolder = [] { return ShareFiles::defaultCopiesFolder(); };
    e.didShare = [](const std::string& kind, const std::string& path) { logLine(LogArea::share, "shared " + kind + " " + path); };
    return e;
}

ShareEngine::ShareEngine(Environment environment) : m_environment(std::move(environment))
{
    // Whatever the caller left out comes from the desktop.
    const Environment defaults = Environment::desktop();
    auto fill = [](auto& mine, const auto& fallback) {
        if (!mine)
            mine = fallback;
    };
    fill(m_environment.keepOriginal, defaults.keepOriginal);
    fill(m_environment.removeOriginal, defaults.removeOriginal);
    fill(m_environment.copyToClipboard, defaults.copyToClipboard);
    fill(m_environment.wallpaperURL, defaults.wallpaperURL);
    fill(m_environment.copiesFolder, defaults.copiesFolder);
    fill(m_environment.didShare, defaults.didShare);
}

void ShareEngine::stop()
{
    std::lock_guard lock(m_lock);
    m_stop.request_stop();
}

ShareProgress ShareEngine::progress() const
{
    std::lock_guard lock(m_lock);
    return m_progress;
}

std::optional<ShareOutcome> ShareEngine::outcome() const
{
    std::lock_guard lock(m_lock);
    return m_outcome;
}

void ShareEngine::publish()
{
    if (onProgress)
        onProgress(progress());
}

void ShareEngine::setStage(ID id, State state, std::optional<std::string> title, std::optional<std::string> detail)
{
    {
        std::lock_guard lock(m_lock);
        ShareStage* stage = m_progress.stage(id);
        stage->state = state;
        if (title)
            stage->title = *title;
        if (detail)
            stage->detail = *detail;
    }
    publish();
}

ShareOutcome ShareEngine::failStage(ID id, std::string sentence)
{
    setStage(id, State::failed);
    logLine(LogArea::share, sentence);
    return ShareOutcome::failed(std::move(sentence));
}

ShareOutcome ShareEngine::share(const fs::path& movie, ShareKind kind, ShareQuality quality, const ShareDestination& to)
{
    return share(movie, kind, quality, to, Tuning{});
}

ShareOutcome ShareEngine::share(const fs::path& movie, ShareKind kind, ShareQuality quality, const ShareDestination& to,
    const Tuning& tuning)
{
    bool idle = false;
    if (!m_running.compare_exchange_strong(idle, true))
        return ShareOutcome::failed(busySentence);
    {
        std::lock_guard lock(m_lock);
        m_outcome.reset();
        m_progress = ShareProgress::initial(kind == ShareKind::original);
        m_stop = std::stop_source();
        m_notices.clear();
    }
    publish();
    ShareOutcome outcome = run(movie, kind, quality, to, tuning);
    {
        std::lock_guard lock(m_lock);
        outcome.notices = std::move(m_notices);
        m_outcome = outcome;
    }
    m_running = false;
    publish();
    return outcome;
}

ShareOutcome ShareEngine::run(const fs::path& movie, ShareKind kind, ShareQuality quality, const ShareDestination& to,
    const Tuning& tuning)
{
    fs::path folder = to.folder ? *to.folder : m_environment.copiesFolder();
    if (to.isCopy()) {
        std::error_code error;
        fs::create_directories(folder, error);
    }

    if (kind == ShareKind::original) {
        setStage(ID::read, State::now);
        if (auto file = checkOrdinaryFile(movie); !file)
            return failStage(ID::read, file.error().kind == Error::Kind::missing
                    ? "There is no movie at " + movie.string() + ". Nothing was saved; check the path and share again."
                    : movie.string() + " cannot be copied (" + file.error().sentence
                        + "). Nothing was saved; name the plim's movie file and share again.");
        setStage(ID::read, State::done);
        for (ID id : {ID::edit, ID::frames, ID::captions, ID::write})
            setStage(id, State::skipped);
        return copyOriginal(movie, folder);
    }
    setStage(ID::copyOriginal, State::skipped);

    // read
    setStage(ID::read, State::now);
    auto read = SharePlim::read(movie);
    if (!read)
        return failStage(ID::read, read.error().sentence);
    {
        std::lock_guard lock(m_lock);
        m_notices = read->notices;
    }
    if (m_stop.stop_requested())
        return ShareOutcome::stopped();
    StagingJob job = std::move(read->job);
    const MovieInfo info = read->info;
    setStage(ID::read, State::done, std::nullopt, seconds1(info.duration, "%.1f s, as recorded"));

    // edit
    setStage(ID::edit, State::now);
    const ClipTimeline timeline = job.plan.clipTimeline(info.duration);
    const bool gif = kind == ShareKind::gif;
    const double fps = gif ? RenderRules::gifFPS : RenderRules::videoFPS;
    const int64_t expected = RenderRules::expectedFrames(timeline, RenderRules::assumedSourceFPS, fps);
    if (expected == 0)
        return failStage(ID::edit, ShareFailure::emptyEdit().sentence);
    int spedUp = 0;
    for (const auto& skip : job.plan.skips)
        spedUp += skip.keep ? 0 : 1;
    bool reordered = false;
    for (size_t i = 1; i < timeline.pieces.size(); ++i)
        reordered = reordered || timeline.pieces[i].rawStart < timeline.pieces[i - 1].rawStart;
    setStage(ID::edit, State::done, std::nullopt,
        ShareStage::editDetail(static_cast<int>(job.plan.cuts.size()), 0, spedUp, reordered));

    // the render job
    job.wallpaper = m_environment.wallpaperURL();
    if (auto why = backdropFallback(job.spec, job.wallpaper))
        m_notices.push_back(*why);
    job.quality = static_cast<RenderRules::Quality>(shortSide(quality));
    job.stallLimit = tuning.stallLimit;
    job.makeSink = tuning.makeSink;
    if (tuning.adjustJob)
        tuning.adjustJob(job);
    ShareRender::prepare(job, kind);
    const RenderRules::PixelSize canvas = StagingEngine::canvas(job, Size{double(info.width), double(info.height)});
    const double outputSeconds = timeline.outputDuration();
    const bool sound = !gif && (info.hasSound || !job.voiceovers.empty());
    const int64_t estimate = estimateBytes(kind, canvas, expected, outputSeconds, sound);
    // Said before the first frame is drawn, and beside every count after it.
    const std::string about = gif ? "" : " · about " + ShareOptions::sizeText(estimate);
    std::vector<int> zoomStarts;
    for (const auto& zoom : job.plan.zooms)
        if (auto out = timeline.outputTime(zoom.start))
            zoomStarts.push_back(static_cast<int>(std::floor(*out * fps)));
    const int zoomCount = static_cast<int>(zoomStarts.size());
    {
        std::lock_guard lock(m_lock);
        m_progress.framesTotal = static_cast<int>(expected);
        m_progress.footline = ShareOptions::kindFormat(kind, {double(canvas.width), double(canvas.height)});
    }
    setStage(ID::frames, State::now, ShareStage::framesTitle(zoomStarts, 0), seconds1(outputSeconds, "%.1f s to render"));
    if (read->captionLines > 0 && job.look.captions)
        setStage(ID::captions, State::now, "Burning in captions", ShareStage::lineCount(read->captionLines));
    else {
        std::lock_guard lock(m_lock);
        ShareStage* captions = m_progress.stage(ID::captions);
        captions->title = "Captions are off";
        captions->detail = "skipped";
        captions->skips = true;
        captions->state = State::skipped;
    }
    setStage(ID::write, State::now, std::nullopt, "frame 0 of " + std::to_string(expected) + about);

    // render into a partial file beside the name, published under the next free one
    job.output = folder / (baseName(movie) + ShareFiles::extension(kind, movie));
    job.publish = Publish::asNewFile;
    const auto started = std::chrono::steady_clock::now();
    auto rendered = ShareRender::run(
        job,
        [&](const ShareRender::Progress& p) {
            {
                std::lock_guard lock(m_lock);
                const int64_t total = std::max<int64_t>(p.expected, 1);
                m_progress.framesDone = static_cast<int>(p.frames);
                m_progress.framesTotal = static_cast<int>(p.expected);
                m_progress.fraction = std::min(1.0, static_cast<double>(p.frames) / static_cast<double>(total));
                m_progress.stage(ID::write)->detail = "frame " + std::to_string(p.frames) + " of " + std::to_string(p.expected) + about;
                m_progress.stage(ID::frames)->title = ShareStage::framesTitle(zoomStarts, static_cast<int>(p.frames));
                const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
                const double left = p.frames > 0 ? elapsed * static_cast<double>(total - p.frames) / static_cast<double>(p.frames) : 0;
                m_progress.footline = std::to_string(p.frames) + " of " + std::to_string(p.expected) + " frames · "
                    + ShareOptions::clock(left) + " left";
            }
            publish();
        },
        m_stop.get_token());
    if (rendered.isStopped()) {
        setStage(ID::write, State::failed);
        return ShareOutcome::stopped();
    }
    if (rendered.isFailed()) {
        setStage(ID::frames, State::failed);
        return failStage(ID::write, rendered.sentence);
    }
    setStage(ID::frames, State::done, ShareStage::framesDoneTitle(zoomCount));
    if (read->captionLines > 0 && job.look.captions)
        setStage(ID::captions, State::done);
    setStage(ID::write, State::done, std::nullopt, std::to_string(rendered.value.frames) + " frames");
    {
        std::lock_guard lock(m_lock);
        m_progress.fraction = 1;
        m_progress.framesDone = static_cast<int>(rendered.value.frames);
    }
    return finish(movie, kind, quality, to, rendered.value.stagedURL, estimate,
        ShareOptions::enlargementNote(kind, quality, Size{double(info.width), double(info.height)}));
}

ShareOutcome ShareEngine::copyOriginal(const fs::path& movie, const fs::path& folder)
{
    setStage(ID::copyOriginal, State::now);
    const fs::path partial = partialSibling(folder / movie.filename());
    std::error_code ignored;
    if (auto copied = copyFile(movie, partial); !copied) {
        fs::remove(partial, ignored);
        return failStage(ID::copyOriginal, "The original plim could not be copied (" + copied.error().sentence
                + "). Check there is free space where it saves, then share again. Nothing was saved.");
    }
    if (m_stop.stop_requested()) {
        fs::remove(partial, ignored);
        setStage(ID::copyOriginal, State::failed);
        return ShareOutcome::stopped();
    }
    auto final = publishFile(partial, folder / movie.filename(), Publish::asNewFile);
    if (!final) {
        fs::remove(partial, ignored);
        return failStage(ID::copyOriginal, "The copy could not be named after " + movie.filename().string() + " ("
                + final.error().sentence + "). Nothing was saved; share again.");
    }
    setStage(ID::copyOriginal, State::done);
    {
        std::lock_guard lock(m_lock);
        m_progress.fraction = 1;
    }
    std::error_code error;
    const int64_t bytes = static_cast<int64_t>(fs::file_size(*final, error));
    return finish(movie, ShareKind::original, ShareQuality::p1080, folder == m_environment.copiesFolder() ? ShareDestination::copy()
                                                                                                       : ShareDestination::save(folder),
        *final, bytes, std::nullopt);
}

ShareOutcome ShareEngine::finish(const fs::path& movie, ShareKind kind, ShareQuality, const ShareDestination& to,
    fs::path url, int64_t estimate, std::optional<std::string> extraNote)
{
    ShareOutcome outcome;
    outcome.kind = ShareOutcome::Kind::finished;
    outcome.url = url;
    std::error_code error;
    const auto size = fs::file_size(url, error);
    const bool known = !error;
    outcome.bytes = known ? static_cast<int64_t>(size) : estimate;
    outcome.estimate = estimate;

    const std::string sizeText = known ? ShareOptions::sizeText(outcome.bytes) : " (estimated " + ShareOptions::sizeText(estimate) + ")";
    std::string note;
    if (to.isCopy()) {
        note = "Copied " + url.filename().string() + ", " + sizeText + ". Paste it into Slack, Mail or Messages.";
        if (auto copied = m_environment.copyToClipboard(url); !copied)
            note = "Saved " + url.filename().string() + ", " + sizeText + ", in " + url.parent_path().string()
                + "; it could not be put on the clipboard (" + copied.error().sentence + ").";
    } else {
        note = "Saved " + url.filename().string() + ", " + sizeText + ".";
    }
    if (extraNote)
        note += " " + *extraNote;

    if (!m_environment.keepOriginal()) {
        if (auto removed = m_environment.removeOriginal(movie); removed)
            outcome.originalRemoved = true;
        else
            note += " Your original recording was kept, because this share could not be kept beside it ("
                + removed.error().sentence + "). Nothing is lost.";
    }
    outcome.note = note;
    m_environment.didShare(std::string(toString(kind)), url.string());
    return outcome;
}

} // namespace plim
