#include "base/text.h"
#include "library/look_store.h"

#include "base/files.h"
#include "base/log.h"
#include "base/places.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <system_error>

namespace plim {

namespace {

std::string joined(const std::vector<std::string>& items)
{
    std::string out;
    for (auto& item : items)
        out += (out.empty() ? "" : ", ") + item;
    return out;
}

} // namespace

fs::path LookStore::defaultFile() { return Places::dataHome() / "plim" / "looks.json"; }

fs::path LookStore::backdropsFolder() { return defaultFile().parent_path() / "backdrops"; }

// An absolute path among Plim's own copies, resolved there; nothing for any other path.
static std::optional<Result<fs::path>> ownBackdropCopy(const fs::path& path)
{
    if (!path.is_absolute())
        return std::nullopt;
    const fs::path inOwn = path.lexically_normal().lexically_relative(LookStore::backdropsFolder());
    if (inOwn.empty() || *inOwn.begin() == ".." || inOwn == ".")
        return std::nullopt;
    return fileInsideFolder(LookStore::backdropsFolder(), inOwn.string());
}

Result<fs::path> LookStore::keepBackdropPicture(const fs::path& picked)
{
    const fs::path folder = backdropsFolder();
    if (auto own = ownBackdropCopy(fs::absolute(picked)); own && *own)
        return *own;
    constexpr size_t largestPicture = size_t(256) << 20;
    auto bytes = readFileBytes(picked, largestPicture);
    if (!bytes)
        return fail("The backdrop picture " + escapedText(picked.string()) + " could not be read (" + bytes.error().sentence
                + "), so nothing was changed. Pick a picture file you can open.",
            bytes.error().kind);
    // FNV-1a over the bytes: the same picture keeps one copy.
    uint64_t hash = 1469598103934665603ull;
    for (unsigned char c : *bytes)
        hash = (hash ^ c) * 1099511628211ull;
    char name[17];
    std::snprintf(name, sizeof name, "%016llx", static_cast<unsigned long long>(hash));
    std::string extension = picked.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(), [](unsigned char c) { return std::tolower(c); });
    if (extension.size() > 8 || !isValidUtf8(extension))
        extension.clear();
    const fs::path copy = folder / (name + extension);
    std::error_code error;
    if (fs::is_regular_file(copy, error) && fs::file_size(copy, error) == bytes->size())
        return copy;
    fs::create_directories(folder, error);
    if (auto written = writeFileAtomic(copy, *bytes); !written)
        return fail("The backdrop picture " + escapedText(picked.filename().string()) + " could not be copied into "
            + folder.string() + " (" + written.error().sentence + "), so nothing was changed. Check that folder can be "
            "written to and has free space.");
    return copy;
}

Result<fs::path> LookStore::backdropPictureFor(const fs::path& plimFolder, const std::string& named)
{
    if (auto own = ownBackdropCopy(fs::path(named)))
        return *own;
    return fileInsideFolder(plimFolder, named);
}

LookStore::LookStore(fs::path file)
    : m_file(std::move(file))
{
    reload();
}

void LookStore::reload()
{
    m_saved.clear();
    m_newPlimLook.reset();
    m_loadProblem.reset();
    m_keptEntries.clear();
    m_unknownKeys = Json::object();

    auto json = readJsonFile(m_file);
    if (!json) {
        switch (json.error().kind) {
        case Error::Kind::missing:
            return;
        default:
            m_loadProblem = "Plim could not read your saved looks at " + m_file.string() + " (" + json.error().sentence +
                "), so none are shown. The file was left as it is and nothing in it was lost; check its "
                "permissions and reopen Plim, as saving a look now would replace it.";
            return;
        case Error::Kind::corrupt:
            m_loadProblem = "Plim could not make sense of your saved looks at " + m_file.string() + " (" +
                json.error().sentence +
                "), so none are shown. The file was left as it is; saving a look will replace it, so copy it "
                "elsewhere first if you want to keep it.";
            return;
        }
    }
    if (!json->is_object()) {
        m_loadProblem = "Plim could not make sense of your saved looks at " + m_file.string() +
            " (it does not hold a list of looks), so none are shown. The file was left as it is; saving a look "
            "will replace it, so copy it elsewhere first if you want to keep it.";
        return;
    }
    const Json& root = *json;
    if (const Json* v = jsonField(root, "version")) {
        auto version = jsonAsInteger(*v);
        if (version && *version > currentVersion) {
            m_loadProblem = "Your saved looks at " + m_file.string() + " were written by a newer Plim (looks format " +
                std::to_string(*version) +
                "), so none are shown. The file was left as it is; update Plim to use them, since saving a look "
                "here would replace it.";
            return;
        }
    }

    for (auto it = root.begin(); it != root.end(); ++it)
        if (it.key() != "version" && it.key() != "saved" && it.key() != "newPlimLook")
            m_unknownKeys[it.key()] = it.value();

    if (const Json* saved = jsonField(root, "saved"); saved && saved->is_array()) {
        size_t position = 0;
        for (const Json& entry : *saved) {
            ++position;
            auto name = jsonString(entry, "name");
            const Json* lookJson = jsonField(entry, "look");
            std::string cleanName = name ? trimmed(*name) : std::string();
            if (cleanName.empty() || !lookJson || !lookJson->is_object()) {
                m_keptEntries.push_back(entry);
                logLine(LogArea::main, "saved look " + std::to_string(position) + " in " + m_file.string() +
                        " has no usable name or look, so it is not listed. It stays in the file as it is.");
                continue;
            }
            auto decoded = PlimLook::fromJson(*lookJson);
            if (!decoded.droppedKeys.empty())
                logLine(LogArea::main, "saved look \"" + cleanName + "\": " + joined(decoded.droppedKeys) +
                        " could not be read and took their usual values. The rest of the look was kept.");
            auto same = std::find_if(m_saved.begin(), m_saved.end(), [&](auto& s) { return s.name == cleanName; });
            if (same != m_saved.end())
                same->look = decoded.look;
            else
                m_saved.push_back({cleanName, decoded.look});
        }
    } else if (root.contains("saved")) {
        m_unknownKeys["saved"] = root["saved"];
        logLine(LogArea::main, "the saved looks in " + m_file.string() +
                " are not a list, so none are shown. They stay in the file as they are.");
    }

    if (const Json* newLook = jsonField(root, "newPlimLook")) {
        auto decoded = PlimLook::fromJson(*newLook);
        if (decoded.notAnObject) {
            m_unknownKeys["newPlimLook"] = *newLook;
            logLine(LogArea::main, "the look for new plims in " + m_file.string() +
                    " could not be read, so new plims wear the usual look. It stays in the file as it is.");
        } else {
            m_newPlimLook = decoded.look;
        }
    }
}

std::optional<PlimLook> LookStore::look(const std::string& name) const
{
    std::string clean = trimmed(name);
    for (auto& s : m_saved)
        if (s.name == clean)
            return s.look;
    return std::nullopt;
}

Status LookStore::write(const std::vector<SavedLook>& saved, const std::optional<PlimLook>& newLook, bool newLookChosen)
{
    Json root = m_unknownKeys;
    root["version"] = currentVersion;
    Json list = Json::array();
    for (auto& s : saved)
        list.push_back(Json{{"name", s.name}, {"look", s.look.toJson()}});
    for (auto& kept : m_keptEntries)
        list.push_back(kept);
    root["saved"] = list;
    // An unreadable look for new plims stays as it was until the user chooses another.
    if (newLook)
        root["newPlimLook"] = newLook->toJson();
    else if (newLookChosen)
        root.erase("newPlimLook");

    std::error_code ec;
    fs::create_directories(m_file.parent_path(), ec);
    auto written = writeJsonAtomic(m_file, root);
    if (!written)
        return fail("Plim could not save your looks. " + written.error().sentence +
                    " Your saved looks are as they were; free some disk space or check that the folder can be "
                    "written to, then try again.");
    m_saved = saved;
    m_newPlimLook = newLook;
    if (newLookChosen)
        m_unknownKeys.erase("newPlimLook");
    m_loadProblem.reset();
    return {};
}

Status LookStore::save(const std::string& name, const PlimLook& look)
{
    std::string clean = trimmed(name);
    if (clean.empty())
        return fail("A saved look needs a name. Nothing was saved; type a name and save again.");
    // A store that could not load starts again from nothing: only an explicit save replaces the file.
    auto saved = m_saved;
    auto same = std::find_if(saved.begin(), saved.end(), [&](auto& s) { return s.name == clean; });
    if (same != saved.end())
        same->look = look;
    else
        saved.push_back({clean, look});
    return write(saved, m_newPlimLook, false);
}

Status LookStore::remove(const std::string& name)
{
    std::string clean = trimmed(name);
    auto saved = m_saved;
    auto gone = std::remove_if(saved.begin(), saved.end(), [&](auto& s) { return s.name == clean; });
    if (gone == saved.end())
        return fail("There is no saved look named \"" + clean + "\". Nothing changed.");
    saved.erase(gone, saved.end());
    return write(saved, m_newPlimLook, false);
}

Status LookStore::rename(const std::string& from, const std::string& to)
{
    std::string cleanFrom = trimmed(from), cleanTo = trimmed(to);
    if (cleanTo.empty())
        return fail("A saved look needs a name. Nothing changed; type a name and try again.");
    auto saved = m_saved;
    auto it = std::find_if(saved.begin(), saved.end(), [&](auto& s) { return s.name == cleanFrom; });
    if (it == saved.end())
        return fail("There is no saved look named \"" + cleanFrom + "\". Nothing changed.");
    if (cleanFrom == cleanTo)
        return {};
    if (std::any_of(saved.begin(), saved.end(), [&](auto& s) { return s.name == cleanTo; }))
        return fail("A saved look is already named \"" + cleanTo + "\". Nothing changed; pick another name.");
    it->name = cleanTo;
    return write(saved, m_newPlimLook, false);
}

Status LookStore::setNewPlimLook(std::optional<PlimLook> look)
{
    return write(m_saved, look, true);
}

} // namespace plim
