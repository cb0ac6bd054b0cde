#pragma once
// Where the cursor recorder reads the pointer: its position, how long ago a key last went
// down, and the frame of a window. The X11 backend queries the server; the scripted one
// (pointer_source_scripted.cpp) answers what a test sets.
//
// All calls come from the recorder's poll thread, 60 times a second, and must not block
// for long. Implementations must be thread-safe: a test or another thread may change a
// scripted source while the poll runs.

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>

namespace plim {

class PointerSource {
public:
    struct Point {
        double x = 0;
        double y = 0;
        bool operator==(const Point&) const = default;
    };
    struct Rect {
        double x = 0;
        double y = 0;
        double width = 0;
        double height = 0;
        bool operator==(const Rect&) const = default;
    };

    virtual ~PointerSource() = default;

    // The pointer in global display points (origin at the main display's top-left, y
    // downward), or nothing when it cannot be read; the recorder then skips the tick.
    virtual std::optional<Point> position() = 0;

    // Seconds since the last key went down anywhere in the session; a large value (or
    // infinity) when no key has gone down yet.
    virtual double secondsSinceLastKeyDown() = 0;

    // The window's frame in global display points, or nothing when the window is gone or
    // its frame cannot be read. Degenerate sizes are the recorder's to reject.
    virtual std::optional<Rect> windowFrame(uint32_t windowID) = 0;
};

// Answers whatever was last set. Thread-safe.
class ScriptedPointerSource final : public PointerSource {
public:
    std::optional<Point> position() override;
    double secondsSinceLastKeyDown() override;
    std::optional<Rect> windowFrame(uint32_t windowID) override;

    void setPosition(std::optional<Point> point);
    void setSecondsSinceLastKeyDown(double seconds);
    void setWindowFrame(uint32_t windowID, std::optional<Rect> frame);
    // How many times windowFrame has been asked.
    int windowFrameQueries() const;

private:
    mutable std::mutex m_mutex;
    std::optional<Point> m_position;
    double m_sinceKeyDown = 1e9;
    std::map<uint32_t, Rect> m_frames;
    int m_frameQueries = 0;
};

} // namespace plim
