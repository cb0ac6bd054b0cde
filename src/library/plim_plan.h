#pragma once
// Which plan a plim gets, decided here for every command that reads, renders or shares
// it: the plan in its edits file (B.edits.json) when that file reads; its automatic edit
// when there is no edits file yet, and when the file cannot be used (refused as newer,
// unreadable, or not edits at all), that file then left exactly as it is. A file read
// only in part gives what could be read and is never rewritten: a render keeps the plan
// it used in B.rendered.json instead.

#include "base/decoded.h"
#include "base/error.h"
#include "capture/cursor_track.h"
#include "capture/keystroke_track.h"
#include "library/plim_edits.h"
#include "plan/edit_plan.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace plim {

struct PlimPlan {
    enum class Source {
        edits,       // the edits file
        automatic,   // no edits file yet: the automatic edit
        fallback,    // the edits file could not be used: the automatic edit, the file untouched
    };
    Source source = Source::automatic;
    EditPlan plan;
    std::optional<PlimEdits> edits;   // the edits file as read (Source::edits)
    std::optional<Error> editsError;  // why the edits file could not be used (Source::fallback)
    bool readInPart = false;          // the edits file read, but something in it was left out
    std::string automaticSummary;     // "2 zooms where you clicked · ...", when the automatic edit is used
    // What each command says about it, in this order: what the read left out, then which
    // plan the plim gets and why.
    std::vector<std::string> notices;

    // Reads B.edits.json beside `movie` and applies the rule. The automatic edit is made
    // from the pointer and key tracks over `rawDuration` seconds (no pointer track: the
    // keys alone). Never writes.
    static PlimPlan choose(const std::filesystem::path& movie, const CursorTrack* cursor, const KeystrokeTrack* keys,
        double rawDuration);

    // The automatic edit of a plim's tracks: its plan, and the line that sums it up.
    static std::pair<EditPlan, std::string> automaticEdit(const CursorTrack* cursor, const KeystrokeTrack* keys,
        double rawDuration);

    // Whether writing B.edits.json would lose nothing: there is none yet, or it read whole.
    bool editsMayBeRewritten() const;

    // Keeps the plan a render used: as the plim's edits (keeping the file's other keys)
    // when they may be rewritten, else in B.rendered.json, the edits file's bytes left as
    // they are. The sentence to show when the edits file was kept, empty otherwise.
    Result<std::string> keepPlanUsed(const std::filesystem::path& movie, const EditPlan& used) const;
};

} // namespace plim
