#pragma once
// The bare transcode the staging and share benchmarks hold Plim's renders against: the same
// recording decoded, scaled to the canvas and encoded with export's encoder settings, with
// nothing composed.

#include "media/movie_reader.h"
#include "media/movie_writer.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace plim::bench {

// Frames written; exits the benchmark with the reason when the movie cannot be read or written.
inline int64_t bareTranscode(const std::filesystem::path& movie, int width, int height, const std::filesystem::path& output)
{
    auto reader = MovieReader::create(movie, MovieReader::Options{width, height, 0});
    if (!reader) {
        std::fprintf(stderr, "bare transcode: %s\n", reader.error().sentence.c_str());
        std::exit(1);
    }
    MovieWriter::Settings settings;
    settings.path = output;
    settings.width = width;
    settings.height = height;
    settings.frameRate = 60;
    settings.bitsPerSecond = exportBitsPerSecond(width, height);
    settings.preset = exportPreset;
    auto writer = MovieWriter::create(settings);
    if (!writer) {
        std::fprintf(stderr, "bare transcode: %s\n", writer.error().sentence.c_str());
        std::exit(1);
    }
    int64_t frames = 0;
    for (;;) {
        auto next = (*reader)->next();
        if (!next || !*next)
            break;
        if (!(*writer)->appendVideo((*next)->image, static_cast<double>(frames) / 60))
            std::exit(1);
        ++frames;
    }
    if (!(*writer)->finish())
        std::exit(1);
    return frames;
}

} // namespace plim::bench
