#include "library/scoped_path_memory.h"

#include "base/json.h"
#include "base/log.h"
#include "base/text.h"

#include <system_error>

namespace plim {

namespace {

const char* noFile = "there is no file there any more (it was moved, renamed, or it lives on a volume that is not mounted).";
const char* noFolder = "there is no folder there any more (it was moved, renamed, replaced by a file, or it lives on a "
                       "volume that is not mounted).";
const char* noAccess = "this copy of Plim was never given access to it (the choice was made in a version that could not keep it).";


} // namespace

std::string ScopedPathMemory::displayName(const fs::path& path, Kind kind)
{
    fs::path normal = path.lexically_normal();
    if (!normal.has_filename() && normal.has_relative_path())
        normal = normal.parent_path();
    std::string name = normal.filename().string();
    if (name.empty() || name == "." || name == "..")
        return kind == Kind::folder ? "the folder you picked" : "the file you picked";
    return "\"" + name + "\"";
}

Status ScopedPathMemory::remember(const fs::path& path, const std::string& key)
{
    std::error_code ec;
    fs::path absolute = path.is_absolute() ? path : fs::absolute(path, ec);
    if (ec)
        absolute = path;
    Status stored = m_defaults.setValue(key, absolute.lexically_normal().string());
    if (stored)
        return {};
    bool isFolder = fs::is_directory(absolute, ec);
    std::string sentence = "Plim: could not remember " + displayName(absolute, isFolder ? Kind::folder : Kind::file)
        + " beyond this launch (" + clause(stored.error().sentence) + "). It will work until Plim quits, and then Plim "
          "will ask for it again.";
    logLine(sentence);
    return fail(sentence);
}

Status ScopedPathMemory::forget(const std::string& key) { return m_defaults.remove(key); }

ScopedPathMemory::Recall ScopedPathMemory::recall(const std::string& key, Kind kind) const
{
    std::optional<Json> stored = m_defaults.value(key);
    if (!stored || stored->is_null())
        return Recall::nothing();
    if (!stored->is_string() || stored->get<std::string>().empty() || stored->get<std::string>().front() != '/')
        return Recall::lost({}, kind, noAccess);
    fs::path path = stored->get<std::string>();
    std::error_code ec;
    fs::file_status status = fs::status(path, ec);
    if (kind == Kind::folder)
        return fs::is_directory(status) ? Recall::at(path, kind) : Recall::lost(path, kind, noFolder);
    bool isFile = fs::exists(status) && !fs::is_directory(status);
    return isFile ? Recall::at(path, kind) : Recall::lost(path, kind, noFile);
}

std::optional<std::string> ScopedPathMemory::Recall::sentence() const
{
    if (outcome != Outcome::lost)
        return std::nullopt;
    return "Plim remembered " + displayName(path, kind) + ", and cannot use it now: " + reason
        + " Nothing was written. Choose it again and Plim will keep the new choice.";
}

} // namespace plim
