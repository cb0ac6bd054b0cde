#include "live/live_sinks.h"

#include "base/log.h"
#include "media/movie_writer.h"

#include <pthread.h>

namespace plim {

FileLiveSink::FileLiveSink(std::filesystem::path path) : m_path(std::move(path)) {}

FileLiveSink::~FileLiveSink() { close(); }

std::string FileLiveSink::name() const { return m_path.filename().string(); }

void FileLiveSink::consume(const LiveFrame& frame)
{
    std::unique_lock lock(m_lock);
    if (m_failure)
        return;
    if (!m_thread.joinable()) {
        m_closing = false;
        m_finished.reset();
        m_thread = std::thread([this] { run(); });
    }
    if (m_queue.size() >= queueDepth) {
        ++m_dropped;
        return;
    }
    m_queue.push_back(frame);
    lock.unlock();
    m_wake.notify_one();
}

LiveSinkHealth FileLiveSink::health() const
{
    std::lock_guard lock(m_lock);
    if (m_failure)
        return {LiveSinkHealth::Failed{*m_failure}};
    if (m_opened)
        return {LiveSinkHealth::Running{m_dropped}};
    if (m_thread.joinable())
        return {LiveSinkHealth::Opening{}};
    return {LiveSinkHealth::Idle{}};
}

void FileLiveSink::close()
{
    {
        std::lock_guard lock(m_lock);
        if (!m_thread.joinable())
            return;
        m_closing = true;
    }
    m_wake.notify_one();
    m_thread.join();
}

std::optional<Status> FileLiveSink::finished() const
{
    std::lock_guard lock(m_lock);
    return m_finished;
}

int64_t FileLiveSink::framesWritten() const
{
    std::lock_guard lock(m_lock);
    return m_written;
}

void FileLiveSink::fail(std::string sentence)
{
    logLine(LogArea::live, sentence);
    std::lock_guard lock(m_lock);
    m_failure = sentence;
    m_finished = std::unexpected(Error{std::move(sentence)});
    m_queue.clear();
}

void FileLiveSink::run()
{
    pthread_setname_np(pthread_self(), "plim.live.file");
    std::unique_ptr<MovieWriter> writer;
    for (;;) {
        LiveFrame frame;
        {
            std::unique_lock lock(m_lock);
            m_wake.wait(lock, [&] { return m_closing || !m_queue.empty(); });
            if (m_queue.empty())
                break;
            frame = std::move(m_queue.front());
            m_queue.pop_front();
        }
        if (!writer) {
            std::error_code ec;
            if (std::filesystem::exists(m_path, ec)) {
                fail(name() + " already exists, so the stream was not written to it; the file is left as it is. "
                              "Name a new file and go live again.");
                return;
            }
            MovieWriter::Settings settings;
            settings.path = m_path;
            settings.container = MovieWriter::Container::matroska;
            settings.width = frame.image.width / 2 * 2;
            settings.height = frame.image.height / 2 * 2;
            settings.frameRate = frame.duration > 0 ? 1 / frame.duration : 60;
            settings.preset = recordingPreset;
            settings.scalePictures = true;
            settings.timeScale = 1000;
            auto made = MovieWriter::create(settings);
            if (!made) {
                fail(made.error().sentence);
                return;
            }
            writer = std::move(*made);
            std::lock_guard lock(m_lock);
            m_opened = true;
        }
        if (!writer->takesPictureAt(frame.time)) {
            std::lock_guard lock(m_lock);
            ++m_dropped;
            continue;
        }
        if (auto appended = writer->appendVideo(frame.image, frame.time); !appended) {
            fail(appended.error().sentence);
            return;
        }
        std::lock_guard lock(m_lock);
        ++m_written;
    }
    Status done = writer ? writer->finish() : Status{};
    if (!done)
        logLine(LogArea::live, done.error().sentence);
    std::lock_guard lock(m_lock);
    m_finished = done;
    m_opened = false;
}

} // namespace plim
