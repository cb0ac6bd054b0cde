#include "ui/editor_media.h"

#include "base/log.h"
#include "capture/cursor_track.h"
#include "capture/keystroke_track.h"
#include "capture/track_placement.h"
#include "media/movie_reader.h"
#include "media/sound_reader.h"
#include "ui/desktop_services.h"

#include <QMetaObject>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>

namespace plim {

PlimMoments readPlimMoments(const std::filesystem::path& movie)
{
    PlimMoments moments;
    auto cursor = CursorTrack::read(movie);
    if (!cursor)
        return moments;
    const TrackPlacement place(cursor->value);
    for (const ClickEvent& click : cursor->value.clicks)
        moments.clicks.push_back(place.movieSeconds(click.t));
    for (const Mark& mark : cursor->value.marks)
        moments.marks.push_back(place.movieSeconds(mark.t));
    if (auto keys = KeystrokeTrack::read(movie))
        for (const KeyEvent& key : keys->value.events)
            moments.keys.push_back(place.movieSeconds(key.t));
    for (auto* list : {&moments.clicks, &moments.keys, &moments.marks})
        std::sort(list->begin(), list->end());
    return moments;
}

// --- Thumbnails ---

namespace {
// Asks kept waiting: the newest are decoded first and the oldest forgotten, so a timeline
// scrolled fast decodes what it shows now.
constexpr size_t mostWanted = 48;
constexpr size_t mostCached = 800;
} // namespace

ThumbnailSource::ThumbnailSource(std::filesystem::path movie, int height)
    : m_movie(std::move(movie)), m_height(std::max(8, height)), m_thread([this] { work(); })
{
}

ThumbnailSource::~ThumbnailSource()
{
    {
        std::lock_guard lock(m_lock);
        m_stop = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

QImage ThumbnailSource::at(double t, double tolerance)
{
    if (!std::isfinite(t))
        return {};
    const auto ms = static_cast<int64_t>(std::llround(std::max(0.0, t) * 1000));
    const auto reach = static_cast<int64_t>(std::max(1.0, tolerance * 1000));
    std::unique_lock lock(m_lock);
    auto after = m_cache.lower_bound(ms);
    const QImage* best = nullptr;
    int64_t bestGap = reach + 1;
    if (after != m_cache.end() && after->first - ms < bestGap) {
        bestGap = after->first - ms;
        best = &after->second;
    }
    if (after != m_cache.begin() && ms - std::prev(after)->first < bestGap) {
        bestGap = ms - std::prev(after)->first;
        best = &std::prev(after)->second;
    }
    if (best && bestGap <= reach)
        return *best;
    if (m_failed)
        return {};
    if (std::find(m_wanted.begin(), m_wanted.end(), ms) == m_wanted.end()) {
        m_wanted.push_back(ms);
        if (m_wanted.size() > mostWanted)
            m_wanted.erase(m_wanted.begin());
        lock.unlock();
        m_wake.notify_one();
    }
    return {};
}

size_t ThumbnailSource::cachedCount() const
{
    std::lock_guard lock(m_lock);
    return m_cache.size();
}

void ThumbnailSource::work()
{
    std::unique_ptr<MovieReader> reader;
    {
        auto probe = MovieReader::create(m_movie, {.threads = 1});
        if (probe && (*probe)->info().width > 0 && (*probe)->info().height > 0) {
            const MovieInfo& info = (*probe)->info();
            int width = std::max(8, int(std::lround(double(m_height) * info.width / info.height)) & ~1);
            probe->reset();
            if (auto scaled = MovieReader::create(m_movie, {.width = width, .height = m_height & ~1, .threads = 1}))
                reader = std::move(*scaled);
        } else if (!probe) {
            logLine(LogArea::main, "The timeline shows no pictures of " + m_movie.filename().string() + ": "
                + probe.error().sentence);
        }
    }
    if (!reader) {
        std::lock_guard lock(m_lock);
        m_failed = true;
        m_wanted.clear();
        return;
    }
    while (true) {
        int64_t ms = 0;
        {
            std::unique_lock lock(m_lock);
            m_wake.wait(lock, [this] { return m_stop || !m_wanted.empty(); });
            if (m_stop)
                return;
            ms = m_wanted.back();
            m_wanted.pop_back();
        }
        QImage picture;
        if (reader->seek(double(ms) / 1000.0)) {
            auto frame = reader->next();
            if (frame && *frame)
                picture = toQImage((*frame)->image).copy();
        }
        {
            std::lock_guard lock(m_lock);
            if (picture.isNull()) {
                // Kept as an empty picture so it is not asked for again.
                picture = QImage(1, 1, QImage::Format_ARGB32_Premultiplied);
                picture.fill(Qt::transparent);
            }
            m_cache[ms] = std::move(picture);
            while (m_cache.size() > mostCached)
                m_cache.erase(m_cache.begin());
        }
        QMetaObject::invokeMethod(this, &ThumbnailSource::arrived, Qt::QueuedConnection);
    }
}

// --- Waveform ---

WaveformSource::WaveformSource(std::filesystem::path movie) : m_movie(std::move(movie)), m_thread([this] { work(); }) {}

WaveformSource::~WaveformSource()
{
    m_stop = true;
    m_thread.join();
}

std::optional<float> WaveformSource::peak(double from, double to) const
{
    if (!std::isfinite(from) || !std::isfinite(to))
        return std::nullopt;
    auto first = static_cast<int64_t>(std::floor(std::max(0.0, from) * bucketsPerSecond));
    auto last = static_cast<int64_t>(std::ceil(std::max(0.0, to) * bucketsPerSecond));
    std::lock_guard lock(m_lock);
    if (first >= int64_t(m_peaks.size()))
        return m_complete ? std::optional<float>(0.0f) : std::nullopt;
    last = std::clamp<int64_t>(last, first + 1, int64_t(m_peaks.size()));
    return *std::max_element(m_peaks.begin() + first, m_peaks.begin() + last);
}

double WaveformSource::readSeconds() const
{
    std::lock_guard lock(m_lock);
    return double(m_peaks.size()) / bucketsPerSecond;
}

bool WaveformSource::isComplete() const
{
    std::lock_guard lock(m_lock);
    return m_complete;
}

void WaveformSource::work()
{
    constexpr int64_t framesPerBucket = soundSampleRate / bucketsPerSecond;
    auto finish = [this] {
        {
            std::lock_guard lock(m_lock);
            m_complete = true;
        }
        QMetaObject::invokeMethod(this, &WaveformSource::progressed, Qt::QueuedConnection);
    };
    auto reader = SoundReader::create(m_movie);
    if (!reader) {
        logLine(LogArea::main, "The timeline shows no sound of " + m_movie.filename().string() + ": "
            + reader.error().sentence);
        return finish();
    }
    float loudest = 0;
    int64_t inBucket = 0;
    std::vector<float> fresh;
    auto lastSignal = std::chrono::steady_clock::now();
    int damaged = 0;
    while (!m_stop) {
        auto block = (*reader)->read();
        if (!block) {
            // A damaged block reads as silence and the rest still comes; a reader that
            // keeps failing has nothing more to give.
            if (block.error().kind == Error::Kind::unreadable && ++damaged < 3)
                continue;
            logLine(LogArea::main, "The timeline shows the sound of " + m_movie.filename().string()
                + " only in part: " + block.error().sentence);
            break;
        }
        if (block->empty())
            break;
        for (size_t i = 0; i + 1 < block->size(); i += soundChannels) {
            loudest = std::max({loudest, std::abs((*block)[i]), std::abs((*block)[i + 1])});
            if (++inBucket == framesPerBucket) {
                fresh.push_back(std::min(loudest, 1.0f));
                loudest = 0;
                inBucket = 0;
            }
        }
        const auto now = std::chrono::steady_clock::now();
        if (now - lastSignal > std::chrono::milliseconds(150)) {
            {
                std::lock_guard lock(m_lock);
                m_peaks.insert(m_peaks.end(), fresh.begin(), fresh.end());
            }
            fresh.clear();
            lastSignal = now;
            QMetaObject::invokeMethod(this, &WaveformSource::progressed, Qt::QueuedConnection);
        }
    }
    {
        std::lock_guard lock(m_lock);
        m_peaks.insert(m_peaks.end(), fresh.begin(), fresh.end());
        if (inBucket > 0)
            m_peaks.push_back(std::min(loudest, 1.0f));
    }
    finish();
}

} // namespace plim
