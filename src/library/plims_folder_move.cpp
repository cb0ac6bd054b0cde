#include "library/plims_folder_move.h"

#include "base/files.h"
#include "base/log.h"

#include <cerrno>
#include <system_error>
#include <unistd.h>

namespace plim {

namespace {

fs::path withoutTrailingSeparator(fs::path path)
{
    path = path.lexically_normal();
    if (!path.has_filename() && path.has_relative_path())
        path = path.parent_path();
    return path;
}

// "Videos/Plims": the videos folder's own name, as the user sees it.
std::string label(const StorageRoot& root, const char* name)
{
    std::string movies = withoutTrailingSeparator(root.movies).filename().string();
    return (movies.empty() ? std::string("Videos") : movies) + "/" + name;
}

// Whether the link at `link` leads to `target`, by its text or by the folder it reaches.
bool linkLeadsTo(const fs::path& link, const fs::path& target)
{
    std::error_code ec;
    fs::path destination = fs::read_symlink(link, ec);
    if (!ec) {
        fs::path resolved = destination.is_absolute() ? destination : link.parent_path() / destination;
        if (withoutTrailingSeparator(resolved) == withoutTrailingSeparator(target))
            return true;
    }
    return fs::equivalent(link, target, ec) && !ec;
}

PlimsFolderMove::Outcome said(PlimsFolderMove::Outcome::Kind kind, std::string sentence)
{
    if (sentence.rfind("Plim: ", 0) == 0)
        logLine(sentence);
    else
        logLine(LogArea::main, sentence);
    return {kind, std::move(sentence)};
}

} // namespace

bool PlimsFolderMove::legacyIsTheLibrary(const StorageRoot& root)
{
    std::error_code ec;
    fs::path legacy = root.legacyFolder();
    if (!fs::is_directory(legacy, ec))
        return false;
    if (!fs::is_symlink(fs::symlink_status(legacy, ec)))
        return true;
    return !linkLeadsTo(legacy, root.currentFolder());
}

PlimsFolderMove::Outcome PlimsFolderMove::run(const StorageRoot& root)
{
    using Kind = Outcome::Kind;
    const fs::path legacy = root.legacyFolder();
    const fs::path target = root.currentFolder();
    const std::string legacyLabel = label(root, StorageRoot::legacyName);
    const std::string targetLabel = label(root, StorageRoot::currentName);

    std::error_code ec;
    fs::file_status legacyStatus = fs::symlink_status(legacy, ec);
    if (!fs::exists(legacyStatus))
        return {Kind::nothingToDo, {}};

    if (fs::is_symlink(legacyStatus)) {
        if (linkLeadsTo(legacy, target))
            return {Kind::alreadyMoved, {}};
        std::error_code readError;
        fs::path destination = fs::read_symlink(legacy, readError);
        std::string where = readError ? std::string("another place") : destination.string();
        return said(Kind::legacyIsLink, legacyLabel + " is a link to " + where + " so it was left as it is and stays the library.");
    }

    if (!fs::is_directory(legacyStatus))
        return said(Kind::legacyIsFile, legacyLabel + " is a file, not a folder, so Plim did not touch it.");

    fs::file_status targetStatus = fs::symlink_status(target, ec);
    if (fs::is_directory(targetStatus)) {
        std::error_code listError;
        bool empty = fs::is_empty(target, listError);
        if (listError || !empty)
            return said(Kind::targetHoldsFiles, targetLabel + " already holds files, so the plims in " + legacyLabel
                    + " were not moved into it. Plim keeps using " + legacyLabel + ". To use the new name, move what is in "
                    + targetLabel + " elsewhere and reopen Plim.");
        if (::rmdir(target.c_str()) != 0)
            return said(Kind::targetInTheWay, "An empty " + targetLabel + " was in the way and could not be removed ("
                    + errnoText(errno) + "). Plim keeps using " + legacyLabel + ".");
    }

    if (::rename(legacy.c_str(), target.c_str()) != 0)
        return said(Kind::renameFailed, "Plim: the library stays in " + legacyLabel + ". Renaming " + legacyLabel + " to "
                + targetLabel + " failed (" + errnoText(errno) + "). Nothing was moved; Plim keeps using " + legacyLabel + ".");

    if (::symlink(StorageRoot::currentName, legacy.c_str()) != 0)
        return said(Kind::linkFailed, "Plim: moved the library to " + targetLabel + ", but the link back at " + legacyLabel
                + " could not be made (" + errnoText(errno) + "). Projects made before the move may not find their clips.");

    // Linux has no hidden flag for a link, so the link stays visible.
    return said(Kind::moved, "Plim: moved the library from " + legacyLabel + " to " + targetLabel
            + " (a link keeps the old path working)");
}

} // namespace plim
