#include "capture/capture.h"
#include "fuzz/side_file.h"

#include <cmath>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    plim::fuzz::withSideFile(data, size, "cursor.json", [](const auto& movie, const auto&) {
        auto read = plim::CursorTrack::read(movie);
        if (!read)
            return;
        // Whatever the file holds, every number of the track lies in its range.
        namespace limits = plim::track_limits;
        const plim::CursorTrack& t = read->value;
        auto near = [](double v) { return std::fabs(v) <= limits::farthestPoint; };
        bool inRange = near(t.displayX) && near(t.displayY) && near(t.displayWidth) && near(t.displayHeight)
            && t.displayWidth >= limits::smallestDisplay && t.displayHeight >= limits::smallestDisplay
            && t.scale >= limits::smallestScale && t.scale <= limits::largestScale;
        for (const auto& s : t.samples)
            inRange = inRange && near(s.x) && near(s.y) && std::llabs(s.t) <= plim::longestRecordingMS;
        for (const auto& c : t.clicks)
            inRange = inRange && near(c.x) && near(c.y);
        for (const auto& f : t.frames)
            inRange = inRange && near(f.x) && near(f.y) && near(f.w) && near(f.h);
        if (!inRange) {
            std::fprintf(stderr, "a pointer track was read with a number outside its range\n");
            std::abort();
        }
    });
    return 0;
}
