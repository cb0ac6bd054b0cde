#include "library/listing_cache.h"

#include "base/files.h"
#include "base/places.h"
#include "library/plim_record.h"
#include "media/media.h"

#include <sys/stat.h>

#include <cmath>
#include <cstdio>

namespace plim {

namespace {

constexpr std::string_view header = "plim listing cache 1\n";

int64_t nanoseconds(SystemTime instant)
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(instant.time_since_epoch()).count();
}

SystemTime fromNanoseconds(int64_t ns)
{
    return SystemTime(std::chrono::duration_cast<SystemTime::duration>(std::chrono::nanoseconds(ns)));
}

} // namespace

fs::path ListingCache::defaultFile() { return Places::cacheHome() / "plim" / "listing.txt"; }

ListingCache::ListingCache(fs::path file) : m_file(std::move(file))
{
    // One movie a line: modified, bytes, created, duration and the path, tab-separated.
    // Plain text, because parsing it is most of what a warm listing does.
    auto text = readFileBytes(m_file);
    if (!text || !text->starts_with(header))
        return;
    std::string_view rest(*text);
    rest.remove_prefix(header.size());
    while (!rest.empty()) {
        const size_t end = rest.find('\n');
        std::string_view line = rest.substr(0, end);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        long long modified = 0, bytes = 0, created = 0;
        double duration = 0;
        int used = 0;
        const std::string copy(line);
        if (std::sscanf(copy.c_str(), "%lld\t%lld\t%lld\t%lf\t%n", &modified, &bytes, &created, &duration, &used) == 4 && used > 0
            && static_cast<size_t>(used) < copy.size() && std::isfinite(duration))
            m_entries[copy.substr(static_cast<size_t>(used))] = {modified, {duration, bytes, fromNanoseconds(created)}};
    }
}

std::optional<ListingCache::Facts> ListingCache::facts(const fs::path& movie)
{
    struct stat info {};
    if (::stat(movie.c_str(), &info) != 0)
        return std::nullopt;
    const std::string key = movie.string();
    const int64_t modified = int64_t(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec;
    m_seen.insert(key);
    m_folders.insert(movie.parent_path());
    auto found = m_entries.find(key);
    if (found != m_entries.end() && found->second.modified == modified && found->second.facts.bytes == info.st_size)
        return found->second.facts;

    Facts learnt;
    learnt.bytes = info.st_size;
    learnt.createdAt = fileCreationDate(movie).value_or(SystemTime{});
    if (auto reader = MovieReader::create(movie))
        learnt.duration = (*reader)->info().duration;
    ++m_learned;
    m_entries[key] = {modified, learnt};
    m_changed = true;
    return learnt;
}

Status ListingCache::save()
{
    for (auto it = m_entries.begin(); it != m_entries.end();) {
        const bool looked = m_folders.contains(fs::path(it->first).parent_path());
        if (looked && !m_seen.contains(it->first)) {
            it = m_entries.erase(it);
            m_changed = true;
        } else {
            ++it;
        }
    }
    if (!m_changed)
        return {};
    std::string text(header);
    char numbers[128];
    for (const auto& [path, entry] : m_entries) {
        if (path.find('\n') != std::string::npos)
            continue;
        std::snprintf(numbers, sizeof numbers, "%lld\t%lld\t%lld\t%.17g\t", static_cast<long long>(entry.modified),
            static_cast<long long>(entry.facts.bytes), static_cast<long long>(nanoseconds(entry.facts.createdAt)), entry.facts.duration);
        text += numbers;
        text += path;
        text += '\n';
    }
    std::error_code ignored;
    fs::create_directories(m_file.parent_path(), ignored);
    PLIM_TRY(writeFileAtomic(m_file, text));
    m_changed = false;
    return {};
}

} // namespace plim
