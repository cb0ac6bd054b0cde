#include "library/plim_plan.h"

#include "plan/plan.h"

#include "base/files.h"

namespace plim {

std::pair<EditPlan, std::string> PlimPlan::automaticEdit(const CursorTrack* cursor, const KeystrokeTrack* keys,
    double rawDuration)
{
    const CursorTrack none;
    auto performance = AutoEdit::performance(cursor ? *cursor : none, keys, {}, rawDuration);
    auto proposal = AutoEdit::make(performance);
    std::string summary = AutoEdit::summary(proposal, rawDuration, !proposal.skips.empty(),
        AutoEdit::pointerSmoothed(performance));
    return {AutoEdit::plan(proposal), std::move(summary)};
}

PlimPlan PlimPlan::choose(const fs::path& movie, const CursorTrack* cursor, const KeystrokeTrack* keys,
    double rawDuration)
{
    PlimPlan out;
    const std::string name = sidecarPath(movie, PlimFiles::edits).filename().string();
    auto read = PlimEdits::read(movie);
    if (read && read->value) {
        out.source = Source::edits;
        out.plan = read->value->plan;
        out.edits = std::move(read->value);
        // Every notice of a read names something it left out.
        out.readInPart = !read->notices.empty();
        out.notices = std::move(read->notices);
        if (out.readInPart)
            out.notices.push_back(name + " was read only in part, so this plim gets what could be read and the file "
                "is kept exactly as it is; a render keeps the plan it used in "
                + sidecarPath(movie, PlimFiles::rendered).filename().string() + ".");
        return out;
    }
    auto [plan, summary] = automaticEdit(cursor, keys, rawDuration);
    out.plan = std::move(plan);
    out.automaticSummary = std::move(summary);
    if (read) {
        out.source = Source::automatic;
        out.notices.push_back("There is no " + name + " yet, so this plim gets its automatic edit.");
        return out;
    }
    out.source = Source::fallback;
    out.notices.push_back(read.error().sentence);
    // The refusal of a newer file says the file is untouched but not which plan is used.
    if (read.error().kind == Error::Kind::refused)
        out.notices.push_back("Until then this plim gets its automatic edit.");
    out.editsError = std::move(read.error());
    return out;
}

bool PlimPlan::editsMayBeRewritten() const
{
    return source == Source::automatic || (source == Source::edits && !readInPart);
}

Result<std::string> PlimPlan::keepPlanUsed(const fs::path& movie, const EditPlan& used) const
{
    if (editsMayBeRewritten()) {
        PlimEdits kept = edits.value_or(PlimEdits{});
        kept.plan = used;
        PLIM_TRY(kept.write(movie, plimNameAndVersion()));
        return std::string();
    }
    PLIM_TRY(used.writeRendered(movie));
    return sidecarPath(movie, PlimFiles::edits).filename().string() + " was kept as it is"
        + (readInPart ? ", since part of it could not be read" : ", since it could not be used")
        + "; the plan this render used is in " + sidecarPath(movie, PlimFiles::rendered).filename().string() + ".";
}

} // namespace plim
