#include "library/plim4_migration.h"

#include "library/plim_edits.h"
#include "library/plim_record.h"

#include <system_error>

namespace plim::Plim4Migration {

namespace {

bool isRegularFile(const fs::path& path)
{
    std::error_code ec;
    return fs::is_regular_file(path, ec);
}

} // namespace

std::string finishedOnlyNote()
{
    return "Only the finished video of this plim is left: Plim 3 deleted the original recording after staging it "
           "(Keep raw originals was off). It plays and shares as it is, but there is nothing left to edit.";
}

fs::path stagedMovie(const fs::path& rawMovie)
{
    return sidecarPath(rawMovie, "staged" + rawMovie.extension().string());
}

Result<Standing> standing(const fs::path& rawMovie)
{
    Standing out;
    fs::path staged = stagedMovie(rawMovie);

    if (!isRegularFile(rawMovie)) {
        if (!isRegularFile(staged))
            return fail("Neither " + rawMovie.filename().string() + " nor its finished video " +
                        staged.filename().string() +
                        " is in the plims folder any more, so there is nothing to play or edit. Nothing was "
                        "changed; if the files were moved, put them back in the plims folder.");
        out.kind = Standing::Kind::finishedOnly;
        out.playURL = staged;
        out.isEditable = false;
        out.canAutoEdit = false;
        out.notes.push_back(finishedOnlyNote());
        return out;
    }

    out.playURL = rawMovie;
    auto read = PlimEdits::read(rawMovie);
    if (!read) {
        if (read.error().kind == Error::Kind::refused) {
            out.kind = Standing::Kind::newerEdits;
            if (isRegularFile(staged))
                out.playURL = staged;
        }
        out.notes.push_back(read.error().sentence);
    } else if (!read->value && PlimEdits::readPlim3Stage(rawMovie)) {
        fs::path stageFile = sidecarPath(rawMovie, PlimFiles::stage);
        out.kind = Standing::Kind::plim3Project;
        out.projectURL = stageFile;
        out.notes.push_back("This plim was made by Plim 3. Its look is read from " + stageFile.filename().string() +
                            ", which is left as it is, and its edits start from the automatic edit.");
    }
    return out;
}

} // namespace plim::Plim4Migration
