#include "ui/plim_files.h"

#include "app/voiceover_take.h"
#include "base/trash.h"
#include "library/plim_edits.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <set>
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

fs::path editsMovieOf(const PlimRecord& plim, const fs::path& folder)
{
    return plim.rawURL.value_or(folder / (plim.id + ".mov"));
}

// The voiceover files that `edits` name in `folder`.
std::set<fs::path> voiceoversNamedIn(const PlimEdits& edits, const fs::path& folder)
{
    std::set<fs::path> named;
    for (const auto& voice : edits.voiceovers)
        if (!voice.file.empty() && fs::path(voice.file).filename() == voice.file && voice.file != "." && voice.file != "..")
            named.insert(folder / voice.file);
    return named;
}

// The voiceover files that `movie`'s edits name in its folder; nothing when they cannot be read.
std::optional<std::set<fs::path>> voiceoversNamedBy(const fs::path& movie)
{
    auto edits = PlimEdits::read(movie);
    if (!edits)
        return std::nullopt;
    return edits->value ? voiceoversNamedIn(*edits->value, movie.parent_path()) : std::set<fs::path>{};
}

// "B.voiceover.wav" or "B.voiceover 2.wav": a take that joined the plim named B.
bool isVoiceoverOf(const std::string& id, const std::string& name)
{
    const std::string head = id + ".voiceover";
    if (!name.starts_with(head) || !name.ends_with(".wav"))
        return false;
    const std::string middle = name.substr(head.size(), name.size() - head.size() - 4);
    if (middle.empty())
        return true;
    return middle.size() >= 2 && middle[0] == ' '
        && std::all_of(middle.begin() + 1, middle.end(), [](char c) { return std::isdigit(static_cast<unsigned char>(c)); });
}

// The plim's voiceover takes: those its edits name, and those named after it that no other
// plim's edits name (a voiceover taken off the timeline keeps its file, for undo; one that
// joined before the plim was renamed keeps its first name).
std::vector<fs::path> voiceoverFiles(const PlimRecord& plim, const fs::path& folder, std::set<fs::path> files)
{
    std::vector<fs::path> unnamed;
    std::vector<fs::path> otherEdits;
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (isVoiceoverOf(plim.id, name) && !files.contains(it->path()))
            unnamed.push_back(it->path());
        else if (name.ends_with(".edits.json") && name != plim.id + ".edits.json")
            otherEdits.push_back(it->path());
    }
    if (!unnamed.empty()) {
        std::set<fs::path> claimed;
        for (const fs::path& edits : otherEdits) {
            const std::string name = edits.filename().string();
            auto named = voiceoversNamedBy(folder / (name.substr(0, name.size() - std::string(".edits.json").size()) + ".mov"));
            if (named)
                claimed.insert(named->begin(), named->end());
        }
        for (const fs::path& file : unnamed)
            if (!claimed.contains(file))
                files.insert(file);
    }
    std::vector<fs::path> existing;
    for (const fs::path& file : files)
        if (fs::is_regular_file(fs::symlink_status(file, ec)))
            existing.push_back(file);
    // A take whose recording was cut off and that never joined: its sound and its note.
    const fs::path takes = voiceoversFolder(folder);
    for (fs::directory_iterator it(takes, ec), end; !ec && it != end; it.increment(ec)) {
        if (!VoiceoverNote::idOfNote(it->path()))
            continue;
        auto note = VoiceoverNote::read(it->path());
        if (!note || note->movie != editsMovieOf(plim, folder) || note->process.processIsAlive())
            continue;
        for (const fs::path& file : {VoiceoverNote::takeIn(takes, note->id), it->path()})
            if (fs::is_regular_file(fs::symlink_status(file, ec)))
                existing.push_back(file);
    }
    return existing;
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
    auto files = plimFiles(plim);
    if (files.empty())
        return fail(quoted + " was not renamed because its files are not there any more. Nothing was changed.");
    const fs::path folder = folderOf(plim);
    // Its takes named after it go along, and its edits then name them by their new names. Edits
    // that cannot be read whole are never rewritten, so the takes keep the names they know.
    const fs::path movie = editsMovieOf(plim, folder);
    auto edits = PlimEdits::read(movie);
    std::optional<PlimEdits> renamedEdits;
    if (edits && edits->notices.empty()) {
        std::set<fs::path> named;
        if (edits->value)
            named = voiceoversNamedIn(*edits->value, folder);
        for (fs::path& take : voiceoverFiles(plim, folder, std::move(named)))
            if (take.parent_path() == folder && isVoiceoverOf(plim.id, take.filename().string()))
                files.push_back(std::move(take));
        if (edits->value) {
            renamedEdits = *edits->value;
            bool changed = false;
            for (auto& voice : renamedEdits->voiceovers)
                if (std::find(files.begin(), files.end(), folder / voice.file) != files.end() && isVoiceoverOf(plim.id, voice.file)) {
                    voice.file = newName + voice.file.substr(plim.id.size());
                    changed = true;
                }
            if (!changed)
                renamedEdits.reset();
        }
    }
    for (const auto& file : files) {
        const fs::path target = folder / (newName + suffixOf(plim, file));
        std::error_code ec;
        if (fs::exists(fs::symlink_status(target, ec)))
            return fail(quoted + " was not renamed because \"" + target.filename().string()
                + "\" is already in the library. Nothing was changed; choose another name.");
    }
    std::vector<std::pair<fs::path, fs::path>> done;
    auto putBack = [&](const std::string& what) {
        for (auto it = done.rbegin(); it != done.rend(); ++it) {
            std::error_code back;
            fs::rename(it->second, it->first, back);
        }
        return fail(quoted + " was not renamed: " + what + " Its files keep their old names; nothing was lost.");
    };
    for (const auto& file : files) {
        const fs::path target = folder / (newName + suffixOf(plim, file));
        std::error_code ec;
        fs::rename(file, target, ec);
        if (ec)
            return putBack("\"" + file.filename().string() + "\" could not be renamed (" + ec.message() + ").");
        done.emplace_back(file, target);
    }
    if (renamedEdits) {
        const fs::path renamedMovie = folder / (newName + suffixOf(plim, movie));
        if (auto written = renamedEdits->write(renamedMovie, plimNameAndVersion()); !written)
            return putBack("its edits could not be written with its voiceovers' new names. " + written.error().sentence);
    }
    return {};
}

Status trashPlim(const PlimRecord& plim)
{
    auto files = plimFiles(plim);
    if (files.empty())
        return fail("\"" + plim.id + "\" is not in the library any more, so there was nothing to move to the Trash.");
    const fs::path folder = folderOf(plim);
    for (fs::path& voiceover : voiceoverFiles(plim, folder, voiceoversNamedBy(editsMovieOf(plim, folder)).value_or(std::set<fs::path>{})))
        files.push_back(std::move(voiceover));
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
