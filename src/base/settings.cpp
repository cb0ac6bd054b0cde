#include "base/settings.h"

#include "base/json.h"
#include "base/places.h"

#include <system_error>

namespace plim {

bool SettingsStore::boolean(const std::string& key, bool fallback) const
{
    auto v = value(key);
    return v && v->is_boolean() ? v->get<bool>() : fallback;
}

double SettingsStore::number(const std::string& key, double fallback) const
{
    auto v = value(key);
    return v && v->is_number() ? v->get<double>() : fallback;
}

std::string SettingsStore::string(const std::string& key, const std::string& fallback) const
{
    auto v = value(key);
    return v && v->is_string() ? v->get<std::string>() : fallback;
}

FileSettingsStore::FileSettingsStore(fs::path path) : m_path(std::move(path)) {}

FileSettingsStore& FileSettingsStore::shared()
{
    static FileSettingsStore store(Places::settingsFile());
    return store;
}

Result<Json> FileSettingsStore::load() const
{
    auto json = readJsonFile(m_path);
    if (json && json->is_object())
        return *json;
    if (!json && json.error().kind == Error::Kind::missing)
        return Json::object();
    if (json)
        return fail("it does not hold a JSON object", Error::Kind::corrupt);
    return json;
}

std::optional<Json> FileSettingsStore::value(const std::string& key) const
{
    std::lock_guard lock(m_mutex);
    auto all = load();
    if (!all)
        return std::nullopt;
    auto it = all->find(key);
    if (it == all->end())
        return std::nullopt;
    return *it;
}

Status FileSettingsStore::change(const std::string& key, std::optional<Json> value)
{
    std::lock_guard lock(m_mutex);
    auto all = load();
    if (!all)
        return fail("Plim could not read its settings file " + m_path.string() + " (" + all.error().sentence
            + "), so the setting \"" + key + "\" was not saved and the file was left as it is. "
            + "Fix or remove that file and change the setting again.");
    if (value)
        (*all)[key] = std::move(*value);
    else
        all->erase(key);
    std::error_code ec;
    fs::create_directories(m_path.parent_path(), ec);
    return writeJsonAtomic(m_path, *all);
}

Status FileSettingsStore::setValue(const std::string& key, Json value) { return change(key, std::move(value)); }
Status FileSettingsStore::remove(const std::string& key) { return change(key, std::nullopt); }

MemorySettingsStore::MemorySettingsStore() : m_values(std::make_unique<Json>(Json::object())) {}

MemorySettingsStore::~MemorySettingsStore() = default;

std::optional<Json> MemorySettingsStore::value(const std::string& key) const
{
    std::lock_guard lock(m_mutex);
    auto it = m_values->find(key);
    if (it == m_values->end())
        return std::nullopt;
    return *it;
}

Status MemorySettingsStore::setValue(const std::string& key, Json value)
{
    std::lock_guard lock(m_mutex);
    (*m_values)[key] = std::move(value);
    return {};
}

Status MemorySettingsStore::remove(const std::string& key)
{
    std::lock_guard lock(m_mutex);
    m_values->erase(key);
    return {};
}

} // namespace plim
