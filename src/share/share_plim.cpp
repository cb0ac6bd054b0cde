#include "share/share_plim.h"

#include "base/files.h"
#include "base/log.h"
#include "base/text.h"
#include "captions/caption_track.h"
#include "library/library.h"
#include "share/share_failure.h"
#include "share/share_options.h"

namespace plim {

Result<SharePlim> SharePlim::read(const fs::path& movie, std::unique_ptr<MovieReader>* opened)
{
    const std::string name = movie.filename().string();
    auto reader = MovieReader::create(movie);
    if (!reader) {
        logLine(LogArea::share, "could not open " + movie.string() + ": " + reader.error().sentence);
        if (reader.error().kind == Error::Kind::missing)
            return fail("There is no movie at " + movie.string() + ". Nothing was saved; check the path and share again.",
                Error::Kind::missing);
        return fail(reader.error().sentence + " Nothing was saved.", reader.error().kind);
    }
    SharePlim plim;
    plim.info = (*reader)->info();
    if (plim.info.width < 2 || plim.info.height < 2)
        return fail(name + " has no picture in it. Nothing was saved; record the plim again.", Error::Kind::unreadable);

    StagingJob& job = plim.job;
    job.movie = movie;
    // A recording without a pointer track shares without a pointer; a damaged one is said.
    bool hasCursor = false;
    if (auto cursor = CursorTrack::read(movie)) {
        job.cursor = std::move(cursor->value);
        hasCursor = true;
        for (const std::string& notice : cursor->notices)
            logLine(LogArea::share, notice);
    } else if (cursor.error().kind != Error::Kind::missing) {
        return std::unexpected(cursor.error());
    }
    bool hasKeys = false;
    if (auto keys = KeystrokeTrack::read(movie)) {
        job.keys = std::move(keys->value);
        hasKeys = true;
    }

    PlimPlan chosen = PlimPlan::choose(movie, hasCursor ? &job.cursor : nullptr, hasKeys ? &job.keys : nullptr,
        plim.info.duration);
    plim.notices = chosen.notices;
    if (auto spec = StageSpecFile::read(sidecarPath(movie, PlimFiles::stage)))
        plim.baseSpec = std::move(spec->value);
    else if (spec.error().kind != Error::Kind::missing)
        logLine(LogArea::share, spec.error().sentence);
    auto captions = readPlimCaptions(movie, chosen.edits ? &*chosen.edits : nullptr);
    appendNotices(plim.notices, std::move(captions.notices));
    job.captions = captions.value.value_or(CaptionTrack{});
    plim.captionLines = static_cast<int>(job.captions.lines.size());
    PlimEdits found = chosen.edits.value_or(PlimEdits{});
    found.plan = chosen.plan;
    PLIM_TRY(plim.wear(found));
    if (opened)
        *opened = std::move(*reader);
    return plim;
}

Status SharePlim::wear(const PlimEdits& edits)
{
    StagingJob worn = job;
    worn.look = edits.look.value_or(PlimLook{});
    worn.plan = edits.plan.playing(worn.look.deadAir);
    worn.spec = edits.look ? wearing(baseSpec, *edits.look) : baseSpec;
    worn.voiceovers.clear();
    const ClipTimeline timeline = worn.plan.clipTimeline(info.duration);
    for (const PlimEdits::Voiceover& voice : edits.voiceovers) {
        const std::string label = "The voiceover at " + ShareOptions::clock(voice.start);
        auto file = PlimEdits::sideFile(worn.movie, voice.file, label);
        if (!file && file.error().kind == Error::Kind::refused) {
            notices.push_back(file.error().sentence);
            continue;
        }
        if (!file)
            return fail(label + " is missing its sound file (" + escapedText(voice.file)
                    + "). Put the file back in the plim's folder, or delete that voiceover in the editor.",
                Error::Kind::missing);
        const double start = timeline.outputTime(voice.start).value_or(0.0);
        auto held = std::make_shared<const HeldFile>(std::move(*file));
        worn.voiceovers.push_back({held->path(), label, {start, voice.duration, voice.micUnder}, held});
    }
    job = std::move(worn);
    return {};
}

} // namespace plim
