#pragma once
// The picture of a movie showing at any time asked: read on from the last one while the
// time moves forward a little, sought when it goes back or jumps further ahead.
//
// Threads: used from one thread at a time, as the reader it owns.

#include "base/error.h"
#include "media/movie_reader.h"

#include <memory>
#include <optional>

namespace plim {

class MoviePlayhead {
public:
    explicit MoviePlayhead(std::unique_ptr<MovieReader> reader) : m_reader(std::move(reader)) {}

    // The picture showing at `time` seconds: the last one at or before it, the first one for
    // earlier times; null for a movie without pictures. It stays valid until the next call.
    // A reader that fails gives its sentence.
    Result<const VideoFrame*> at(double time);

    MovieReader& reader() { return *m_reader; }

private:
    std::unique_ptr<MovieReader> m_reader;
    std::optional<VideoFrame> m_current;
    std::optional<VideoFrame> m_pending;
    bool m_ended = false;
};

} // namespace plim
