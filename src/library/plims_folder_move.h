#pragma once
// The one-time rename of the legacy "Plims" library folder to "Plim", leaving a link
// behind at the old path. Run once per launch of the application proper; every outcome
// with something to say is logged, never shown.

#include "library/storage_root.h"

#include <string>

namespace plim {

struct PlimsFolderMove {
    struct Outcome {
        enum class Kind {
            nothingToDo,      // no legacy entry
            alreadyMoved,     // the legacy entry is a link to the current folder
            legacyIsFile,     // left alone
            legacyIsLink,     // a link elsewhere: left alone, stays the library
            targetInTheWay,   // an empty current folder could not be removed
            targetHoldsFiles, // nothing moved
            renameFailed,     // nothing moved
            linkFailed,       // moved, but no link back
            moved,
        };
        Kind kind = Kind::nothingToDo;
        std::string sentence; // logged (with "Plim: " in front when it lacks it); empty when nothing to say

        bool libraryMoved() const { return kind == Kind::moved || kind == Kind::linkFailed; }
        bool operator==(const Outcome&) const = default;
    };

    static Outcome run(const StorageRoot& root);

    // True when movies/"Plims" is a folder (links followed) that is a real folder or a
    // link that does not lead to movies/"Plim".
    static bool legacyIsTheLibrary(const StorageRoot& root);
};

} // namespace plim
