#pragma once
// User settings: one JSON object of plain keys, in $XDG_CONFIG_HOME/plim/settings.json.
// Each setting is read with its default where it is used.

#include "base/error.h"
#include "base/files.h"
#include "base/json_fwd.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace plim {

class SettingsStore {
public:
    virtual ~SettingsStore() = default;
    // All calls are thread-safe.
    virtual std::optional<Json> value(const std::string& key) const = 0;
    virtual Status setValue(const std::string& key, Json value) = 0;
    virtual Status remove(const std::string& key) = 0;

    bool boolean(const std::string& key, bool fallback) const;
    double number(const std::string& key, double fallback) const;
    std::string string(const std::string& key, const std::string& fallback) const;
};

// The settings file. A file that cannot be read or parsed is left alone: values read as
// absent, and writes are refused with a sentence rather than replace it.
class FileSettingsStore final : public SettingsStore {
public:
    explicit FileSettingsStore(fs::path path);
    static FileSettingsStore& shared(); // Places::settingsFile()

    std::optional<Json> value(const std::string& key) const override;
    Status setValue(const std::string& key, Json value) override;
    Status remove(const std::string& key) override;
    const fs::path& path() const { return m_path; }

private:
    Result<Json> load() const;
    Status change(const std::string& key, std::optional<Json> value);

    fs::path m_path;
    mutable std::mutex m_mutex;
};

// Settings held in memory only (headless renders, tests of callers).
class MemorySettingsStore final : public SettingsStore {
public:
    MemorySettingsStore();
    ~MemorySettingsStore() override;
    std::optional<Json> value(const std::string& key) const override;
    Status setValue(const std::string& key, Json value) override;
    Status remove(const std::string& key) override;

private:
    std::unique_ptr<Json> m_values; // an object
    mutable std::mutex m_mutex;
};

} // namespace plim
