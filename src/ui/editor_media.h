#pragma once
// What the editor's timeline shows of the recording itself: the clicks, keys and marks of
// its tracks, thumbnails of its pictures and the peaks of its sound.
//
// Threads: readPlimMoments runs on any thread. ThumbnailSource and WaveformSource are made,
// asked and destroyed on the GUI thread; each decodes on one worker thread of its own and
// signals on the GUI thread as results arrive. Destroying one stops its worker first.

#include <QImage>
#include <QObject>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace plim {

// Movie seconds of the recording's clicks, key presses and marks.
struct PlimMoments {
    std::vector<double> clicks;
    std::vector<double> keys;
    std::vector<double> marks;
};

// Reads the cursor and keystroke tracks beside the movie; a track that cannot be read gives
// nothing (its reader logs why).
PlimMoments readPlimMoments(const std::filesystem::path& movie);

class ThumbnailSource : public QObject {
    Q_OBJECT
public:
    // Pictures `height` pixels high.
    ThumbnailSource(std::filesystem::path movie, int height);
    ~ThumbnailSource() override;

    // The picture cached nearest to `t` (movie seconds) within `tolerance` seconds; when
    // there is none, `t` is asked for and a null image comes back until it arrives.
    QImage at(double t, double tolerance);
    // Pictures decoded so far.
    size_t cachedCount() const;

signals:
    void arrived();

private:
    void work();

    std::filesystem::path m_movie;
    int m_height;
    mutable std::mutex m_lock;
    std::condition_variable m_wake;
    std::vector<int64_t> m_wanted;      // milliseconds, newest last
    std::map<int64_t, QImage> m_cache;  // by milliseconds
    bool m_failed = false;
    bool m_stop = false;
    std::thread m_thread;
};

class WaveformSource : public QObject {
    Q_OBJECT
public:
    static constexpr int bucketsPerSecond = 100;

    explicit WaveformSource(std::filesystem::path movie);
    ~WaveformSource() override;

    // The loudest sample (0 to 1) of each bucket over [from, to) movie seconds, and whether
    // that stretch has been read yet.
    std::optional<float> peak(double from, double to) const;
    // Seconds of sound read so far, and whether the whole sound has been read.
    double readSeconds() const;
    bool isComplete() const;

signals:
    void progressed();

private:
    void work();

    std::filesystem::path m_movie;
    mutable std::mutex m_lock;
    std::vector<float> m_peaks;
    bool m_complete = false;
    std::atomic<bool> m_stop = false;
    std::thread m_thread;
};

} // namespace plim
