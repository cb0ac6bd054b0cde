#pragma once
// Movies for the media tests, made with the project's own writer, and ffprobe queries.

#include "media/movie_writer.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

namespace plim::mediatest {

namespace fs = std::filesystem;

// An opaque picture of one colour (BGRA bytes).
inline Image solid(int width, int height, uint8_t b, uint8_t g, uint8_t r)
{
    Image image = Image::allocate(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            uint8_t* p = image.row(y) + 4 * x;
            p[0] = b, p[1] = g, p[2] = r, p[3] = 255;
        }
    return image;
}

// Frame n of a counting movie: grey level 8 × (n mod 30) + 8, so a decoded frame tells its number.
inline int countingLevel(int n) { return 8 * (n % 30) + 8; }

// Interleaved samples of a sine tone, `channels` wide, silent outside [from, to) frames.
inline std::vector<float> toneBurst(int64_t frames, int channels, double hz, int64_t from, int64_t to, float gain = 0.5f,
    int rate = 48000)
{
    std::vector<float> out(static_cast<size_t>(frames * channels), 0.0f);
    for (int64_t i = std::max<int64_t>(from, 0); i < std::min(to, frames); ++i)
        for (int c = 0; c < channels; ++c)
            out[static_cast<size_t>(i * channels + c)] = gain * static_cast<float>(std::sin(2 * M_PI * hz * i / rate));
    return out;
}

struct MovieSpec {
    MovieWriter::Container container = MovieWriter::Container::mp4;
    int width = 320;
    int height = 240;
    double fps = 30;
    double seconds = 2;
    std::vector<MovieWriter::SoundTrack> sound;
    std::vector<std::vector<float>> soundSamples; // per track, interleaved
};

// Writes a counting movie (and its sound, fed in 1024-frame blocks beside the pictures).
inline void writeMovie(const fs::path& path, const MovieSpec& spec)
{
    auto writer = MovieWriter::create({.path = path,
        .container = spec.container,
        .width = spec.width,
        .height = spec.height,
        .frameRate = spec.fps,
        .bitsPerSecond = exportBitsPerSecond(spec.width, spec.height),
        .sound = spec.sound});
    ASSERT_TRUE(writer) << writer.error().sentence;
    int frames = static_cast<int>(std::lround(spec.seconds * spec.fps));
    std::vector<int64_t> fed(spec.sound.size(), 0);
    for (int n = 0; n < frames; ++n) {
        uint8_t level = static_cast<uint8_t>(countingLevel(n));
        ASSERT_TRUE((*writer)->appendVideo(solid(spec.width, spec.height, level, level, level), n / spec.fps));
        for (size_t t = 0; t < spec.sound.size(); ++t) {
            int ch = spec.sound[t].channels;
            int64_t total = static_cast<int64_t>(spec.soundSamples[t].size()) / ch;
            int64_t until = std::min<int64_t>(total, std::llround((n + 1) / spec.fps * 48000));
            while (fed[t] < until) {
                int64_t count = std::min<int64_t>(1024, until - fed[t]);
                ASSERT_TRUE((*writer)->appendAudio(static_cast<int>(t), spec.soundSamples[t].data() + fed[t] * ch, count,
                    fed[t]));
                fed[t] += count;
            }
        }
    }
    auto finished = (*writer)->finish();
    ASSERT_TRUE(finished) << finished.error().sentence;
}

// A movie of the given pictures at 30 fps, one per frame, with the default settings.
inline void writeSolids(const fs::path& path, int width, int height, const std::vector<Image>& pictures,
    bool scalePictures = false)
{
    auto writer = MovieWriter::create(
        {.path = path, .width = width, .height = height, .frameRate = 30, .scalePictures = scalePictures});
    ASSERT_TRUE(writer) << writer.error().sentence;
    for (size_t n = 0; n < pictures.size(); ++n)
        ASSERT_TRUE((*writer)->appendVideo(pictures[n], n / 30.0));
    ASSERT_TRUE((*writer)->finish());
}

using testkit::probe;

// Replaces every occurrence of a four-letter code in a file (to make codecs unknown).
inline void patchFourcc(const fs::path& path, const std::string& from, const std::string& to)
{
    std::string data = testkit::readText(path);
    for (size_t at = data.find(from); at != std::string::npos; at = data.find(from, at + 4))
        data.replace(at, 4, to);
    testkit::writeText(path, data);
}

// Top-level atom names of a QuickTime/MPEG-4 file, in file order.
inline std::vector<std::string> topAtoms(const fs::path& path)
{
    std::string data = testkit::readText(path);
    std::vector<std::string> names;
    size_t at = 0;
    while (at + 8 <= data.size()) {
        auto byte = [&](size_t i) { return static_cast<uint64_t>(static_cast<unsigned char>(data[at + i])); };
        uint64_t size = byte(0) << 24 | byte(1) << 16 | byte(2) << 8 | byte(3);
        names.push_back(data.substr(at + 4, 4));
        if (size == 1 && at + 16 <= data.size()) {
            size = 0;
            for (int i = 8; i < 16; ++i)
                size = size << 8 | byte(i);
        }
        if (size < 8)
            break;
        at += size;
    }
    return names;
}

} // namespace plim::mediatest
