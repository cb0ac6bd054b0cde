#pragma once
// The picture of a movie showing at any time asked: read on from the last one while the
// time moves forward a little, sought when it goes back or jumps further ahead. Pictures
// read past on the way are only decoded; the one shown is converted to BGRA, at the size
// asked for.
//
// Threads: used from one thread at a time, as the reader it owns.

#include "base/error.h"
#include "media/movie_reader.h"

#include <memory>
#include <optional>
#include <string>

namespace plim {

class MoviePlayhead {
public:
    explicit MoviePlayhead(std::unique_ptr<MovieReader> reader)
        : m_reader(std::move(reader)), m_converter(m_reader->converter())
    {
    }

    // The picture showing at `time` seconds: the last one at or before it, the first one for
    // earlier times; null for a movie without pictures. It stays valid until the next call.
    // A reader that fails gives its sentence.
    Result<const VideoFrame*> at(double time);

    // Pictures come at `width` × `height` from now on (0 × 0: the reader's own size);
    // `movieName` names the movie in sentences.
    void setPictureSize(int width, int height, const std::string& movieName);

    MovieReader& reader() { return *m_reader; }

private:
    std::unique_ptr<MovieReader> m_reader;
    PictureConverter m_converter;
    std::optional<RawVideoFrame> m_current;
    std::optional<RawVideoFrame> m_pending;
    std::optional<VideoFrame> m_picture; // m_current converted
    bool m_ended = false;
};

} // namespace plim
