#include "library/storage_root.h"

#include "base/log.h"
#include "base/places.h"
#include "library/plims_folder_move.h"

namespace plim {

StorageRoot StorageRoot::direct(const fs::path& home)
{
    StorageRoot root;
    if (auto videos = Places::videosDir()) {
        root.movies = *videos;
    } else {
        root.movies = home / "Videos";
        logLine(LogArea::main, "this computer reported no Videos folder in the user domain, so Plim is filing "
                "plims under " + home.string() + "/Videos instead. Nothing was moved; if plims are missing from "
                "the library they are still in the folder they were recorded into.");
    }
    root.plimsFolderName = PlimsFolderMove::legacyIsTheLibrary(root) ? legacyName : currentName;
    return root;
}

} // namespace plim
