#pragma once
// How a plim made by an earlier major version stands in this one: whether it can be
// edited, what plays, and what the user should be told. Works from the files beside the
// movie and never changes any of them.

#include "base/error.h"
#include "base/files.h"

#include <optional>
#include <string>
#include <vector>

namespace plim {

namespace Plim4Migration {

struct Standing {
    enum class Kind {
        editable,     // the raw recording is there and its edits (if any) can be read
        finishedOnly, // only the staged movie is left: it plays and shares, nothing to edit
        plim3Project, // a raw recording with an older stage file and no edits file yet
        newerEdits,   // the edits were saved by a newer Plim; the plim opens from its automatic edit
    };

    Kind kind = Kind::editable;
    fs::path playURL;
    bool isEditable = true;
    bool canAutoEdit = true;
    std::optional<fs::path> projectURL;
    std::vector<std::string> notes;

    bool operator==(const Standing&) const = default;
};

// The staged movie beside a raw one: B.mov -> B.staged.mov.
fs::path stagedMovie(const fs::path& rawMovie);

// The standing of the plim whose raw movie is (or was) at `rawMovie`. Fails with a
// sentence when neither the raw nor the staged movie is there.
Result<Standing> standing(const fs::path& rawMovie);

std::string finishedOnlyNote();

} // namespace Plim4Migration

} // namespace plim
