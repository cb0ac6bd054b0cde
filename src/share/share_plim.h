#pragma once
// A plim read for sharing: its movie opened and measured, its pointer and key tracks,
// its edits (plan, look, voiceovers) and stage look, gathered into the staging job the
// render runs. Reading never changes a file.

#include "base/error.h"
#include "media/movie_reader.h"
#include "library/plim_edits.h"
#include "stage/staging_engine.h"

#include <filesystem>
#include <string>
#include <vector>

namespace plim {

struct SharePlim {
    StagingJob job;
    MovieInfo info;
    StageSpec baseSpec;   // the stage look beside the movie, before the edits' look
    int captionLines = 0; // lines in the plim's caption track (burned in when the look shows captions)
    // Which plan the plim got and why, and side files left out.
    std::vector<std::string> notices;

    // Fails with a whole sentence: no movie, a movie with no picture, a track that cannot
    // be read, a voiceover whose sound file is missing. A voiceover naming a file outside
    // the plim's folder is left out with a notice.
    // With `opened`, the movie's reader is handed there, at its start, for a render or
    // preview that follows.
    static Result<SharePlim> read(const std::filesystem::path& movie, std::unique_ptr<MovieReader>* opened = nullptr);

    // Puts `edits` on the job: its plan (dead air as the look asks), look, stage look and
    // voiceovers. Fails as read() does for a voiceover whose file is missing, the job
    // unchanged; notices go to `notices`.
    Status wear(const PlimEdits& edits);
};

} // namespace plim
