#pragma once
// The files that make up one plim in the library folder, renamed or moved to the Trash
// together so that its side files and identity stay with its movie.
//
// Threads: plain file operations, callable from any thread; each blocks for the time the
// file system takes (renames and moves within one volume).

#include "base/error.h"
#include "library/plim_record.h"

#include <filesystem>
#include <string>
#include <vector>

namespace plim {

// The plim's files that exist: its movies first, then its side files (B.cursor.json,
// B.id.json, B.thumbs.heic ...).
std::vector<std::filesystem::path> plimFiles(const PlimRecord& plim);

// Gives every file of the plim the base name `newName`, its voiceover takes named after it
// too ("B.voiceover 2.wav"), and rewrites its edits atomically to name the takes' new names.
// Refuses a name that is empty, holds a '/', starts with '.', or would land on a file that
// exists, before anything moves; a rename that fails part way puts the files already renamed
// back. Edits that cannot be read whole are not rewritten, and the takes then keep their
// names. The sentence says what happened.
Status renamePlim(const PlimRecord& plim, const std::string& newName);

// Moves every file of the plim to the Trash, its voiceover takes too (those its edits name,
// those named after it that no other plim's edits name, and takes cut off before they
// joined it). A file that could not be moved is left where
// it is and named in the sentence; the ones moved stay in the Trash, where the file manager
// can put them back.
Status trashPlim(const PlimRecord& plim);

} // namespace plim
