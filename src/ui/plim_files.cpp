#include "ui/plim_files.h"

#include "base/trash.h"

#include <array>
#include <system_error>

namespace plim {

namespace {

// Side files named base + suffix.
constexpr std::array sideSuffixes = {".cursor.json", ".keys.json", ".edits.json", ".stage.json", ".rendered.json",
    ".captions.json", ".thumbs.heic", ".id.json"};

fs::path folderOf(const PlimRecord& plim)
{
    if (plim.rawURL)
        return plim.rawURL->parent_path();
    if (plim.stagedURL)
        return plim.stagedURL->parent_path();
    return plim.cameraURL ? plim.cameraURL->parent_path() : fs::path();
}

// What follows the base name in a file of this plim (".mov", ".staged.mov", ".id.json").
std::string suffixOf(const PlimRecord& plim, const fs::path& file)
{
    return file.filename().string().substr(plim.id.size());
}

} // namespace

std::vector<fs::path> plimFiles(const PlimRecord& plim)
{
    std::vector<fs::path> files;
    for (const auto& movie : {plim.rawURL, plim.stagedURL, plim.cameraURL})
        if (movie && fs::exists(*movie))
            files.push_back(*movie);
    const fs::path folder = folderOf(plim);
    if (folder.empty())
        return files;
    for (const char* suffix : sideSuffixes) {
        fs::path side = folder / (plim.id + suffix);
        std::error_code ec;
        if (fs::is_regular_file(side, ec))
            files.push_back(side);
    }
    return files;
}

Status renamePlim(const PlimRecord& plim, const std::string& newName)
{
    const std::string quoted = "\"" + plim.id + "\"";
    if (newName.empty() || newName.find('/') != std::string::npos || newName.front() == '.')
        return fail(quoted + " was not renamed: a name must not be empty, hold a slash or start with a point. Nothing was changed.");
    if (newName == plim.id)
        return {};
    const auto files = plimFiles(plim);
    if (files.empty())
        return fail(quoted + " was not renamed because its files are not there any more. Nothing was changed.");
    const fs::path folder = folderOf(plim);
    for (const auto& file : files) {
        const fs::path target = folder / (newName + suffixOf(plim, file));
        std::error_code ec;
        if (fs::exists(fs::symlink_status(target, ec)))
            return fail(quoted + " was not renamed because \"" + target.filename().string()
                + "\" is already in the library. Nothing was changed; choose another name.");
    }
    std::vector<std::pair<fs::path, fs::path>> done;
    for (const auto& file : files) {
        const fs::path target = folder / (newName + suffixOf(plim, file));
        std::error_code ec;
        fs::rename(file, target, ec);
        if (ec) {
            for (auto it = done.rbegin(); it != done.rend(); ++it) {
                std::error_code back;
                fs::rename(it->second, it->first, back);
            }
            return fail(quoted + " was not renamed: \"" + file.filename().string() + "\" could not be renamed ("
                + ec.message() + "). Its files keep their old names; nothing was lost.");
        }
        done.emplace_back(file, target);
    }
    return {};
}

Status trashPlim(const PlimRecord& plim)
{
    const auto files = plimFiles(plim);
    if (files.empty())
        return fail("\"" + plim.id + "\" is not in the library any more, so there was nothing to move to the Trash.");
    std::string left;
    for (const auto& file : files) {
        auto moved = moveToTrash(file);
        if (!moved)
            left += (left.empty() ? "" : ", ") + ("\"" + file.filename().string() + "\" (" + moved.error().sentence + ")");
    }
    if (!left.empty())
        return fail("Some of \"" + plim.id + "\" could not be moved to the Trash and was left where it is: " + left
            + ". Nothing was deleted; what was moved can be put back from the Trash.");
    return {};
}

} // namespace plim
