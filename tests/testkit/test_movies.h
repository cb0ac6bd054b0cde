#pragma once
// Small movies for render tests, written with media's MovieWriter, and what ffprobe says
// about a movie. Header-only: it needs the media and stage libraries, which only the stage,
// share and app tests link.

#include "base/image.h"
#include "capture/cursor_track.h"
#include "media/movie_writer.h"
#include "media/sound_reader.h"
#include "stage/video_sink.h"
#include "testkit/testkit.h"

#include <cmath>
#include <cstdint>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace plim::testkit {

struct TestMovie {
    int width = 320;
    int height = 200;
    double fps = 30;
    double duration = 3;
    // The picture's colour (0xRRGGBB) from each start time on.
    std::vector<std::pair<double, uint32_t>> colors = {{0, 0xd02020}, {1, 0x20c020}, {2, 0x2040e0}};
    bool sound = true;
    std::vector<double> tones; // 1 kHz bursts of `toneLength` seconds in otherwise silent sound
    double toneLength = 0.08;
    bool noise = false; // grey noise over the colour, which no encoder can squeeze
};

inline uint32_t colorAt(const TestMovie& m, double t)
{
    uint32_t color = m.colors.empty() ? 0x808080 : m.colors.front().second;
    for (const auto& [start, c] : m.colors)
        if (t >= start)
            color = c;
    return color;
}

// Interleaved stereo of `duration` seconds: 1 kHz bursts at 0.5 of `length` seconds from each start, else silence.
inline std::vector<float> toneTrack(double duration, const std::vector<double>& starts, double length)
{
    const int64_t total = std::llround(duration * soundSampleRate);
    std::vector<float> pcm(static_cast<size_t>(total) * 2, 0.0f);
    for (double start : starts)
        for (int64_t f = std::llround(start * soundSampleRate);
             f < std::llround((start + length) * soundSampleRate) && f < total; ++f) {
            float v = 0.5f * static_cast<float>(std::sin(2 * M_PI * 1000.0 * static_cast<double>(f) / soundSampleRate));
            pcm[static_cast<size_t>(f) * 2] = pcm[static_cast<size_t>(f) * 2 + 1] = v;
        }
    return pcm;
}

inline Status writeTestMovie(const fs::path& path, const TestMovie& m)
{
    // Written the way the recorder writes its movies.
    auto settings = MovieWriter::Settings::recording(path, m.width, m.height, m.fps);
    if (m.sound)
        settings.sound.push_back(MovieWriter::systemSoundTrack());
    auto writer = PLIM_TRY(MovieWriter::create(settings));
    const int64_t frames = std::llround(m.duration * m.fps);
    for (int64_t i = 0; i < frames; ++i) {
        double t = static_cast<double>(i) / m.fps;
        Image picture = solidImage(m.width, m.height, colorAt(m, t));
        if (m.noise) {
            uint32_t seed = static_cast<uint32_t>(i) * 2654435761u + 1;
            for (int y = 0; y < m.height; ++y)
                for (int x = 0; x < m.width; ++x) {
                    seed = seed * 1664525u + 1013904223u;
                    picture.row(y)[x * 4 + 1] = static_cast<uint8_t>(seed >> 24);
                }
        }
        PLIM_TRY(writer->appendVideo(picture, t));
    }
    if (m.sound) {
        const std::vector<float> pcm = toneTrack(m.duration, m.tones, m.toneLength);
        PLIM_TRY(writer->appendAudio(0, pcm.data(), static_cast<int64_t>(pcm.size() / 2), 0));
    }
    return writer->finish();
}

// A pointer that crosses the picture once and clicks in the middle, over a display of the
// movie's size in points.
inline CursorTrack testTrack(const TestMovie& m)
{
    CursorTrack track;
    track.displayWidth = m.width;
    track.displayHeight = m.height;
    track.scale = 1;
    for (int i = 0; i <= static_cast<int>(m.duration * 60); ++i) {
        double u = i / (m.duration * 60);
        track.samples.push_back({std::llround(i * 1000.0 / 60), roundToTenth(m.width * (0.2 + 0.6 * u)),
            roundToTenth(m.height * 0.5), 0});
    }
    track.clicks.push_back({std::llround(m.duration * 500), m.width * 0.5, m.height * 0.5});
    return track;
}

// What ffprobe reports about a movie's picture track and container.
struct Probe {
    int width = 0;
    int height = 0;
    double frameRate = 0; // r_frame_rate
    int64_t frames = 0;   // frames decoded
    double duration = 0;  // the container's
    bool hasAudio = false;
    std::string codec;
    std::string audioCodec;
    std::string colorSpace;
};

inline Probe ffprobe(const fs::path& path)
{
    Probe p;
    auto video = runCommand({"ffprobe", "-v", "error", "-select_streams", "v:0", "-count_frames", "-show_entries",
        "stream=width,height,r_frame_rate,nb_read_frames,codec_name,color_space", "-show_entries", "format=duration",
        "-of", "default=nw=1", path.string()});
    std::map<std::string, std::string> values;
    std::istringstream lines(video.out);
    for (std::string line; std::getline(lines, line);)
        if (auto eq = line.find('='); eq != std::string::npos)
            values[line.substr(0, eq)] = line.substr(eq + 1);
    auto number = [&](const std::string& key) { return values.contains(key) ? std::atof(values[key].c_str()) : 0.0; };
    p.width = static_cast<int>(number("width"));
    p.height = static_cast<int>(number("height"));
    p.frames = static_cast<int64_t>(number("nb_read_frames"));
    p.duration = number("duration");
    p.codec = values["codec_name"];
    p.colorSpace = values["color_space"];
    const std::string rate = values["r_frame_rate"];
    const auto slash = rate.find('/');
    if (slash != std::string::npos && std::atof(rate.substr(slash + 1).c_str()) > 0)
        p.frameRate = std::atof(rate.substr(0, slash).c_str()) / std::atof(rate.substr(slash + 1).c_str());
    auto audio = runCommand({"ffprobe", "-v", "error", "-select_streams", "a:0", "-show_entries", "stream=codec_name",
        "-of", "default=nw=1:nk=1", path.string()});
    p.audioCodec = audio.out.substr(0, audio.out.find('\n'));
    p.hasAudio = !p.audioCodec.empty();
    return p;
}

// Every file under a folder with its bytes, to show a render left a plim exactly as it was.
inline std::map<std::string, std::string> folderContents(const fs::path& folder)
{
    std::map<std::string, std::string> out;
    for (const auto& entry : fs::recursive_directory_iterator(folder))
        if (entry.is_regular_file())
            out[fs::relative(entry.path(), folder).string()] = readText(entry.path());
    return out;
}

// A sink that takes `takes` frames, then accepts nothing more until the render gives up on it.
struct StalledSink final : VideoSink {
    explicit StalledSink(int takes = 0) : takes(takes) {}
    int takes, taken = 0;
    Status appendVideo(const Image&, double, StopToken stop) override
    {
        while (taken++ >= takes && !stop.stop_requested())
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return {};
    }
    Status appendAudio(const float*, int64_t, int64_t) override { return {}; }
    double soundSeconds() const override { return 0; }
    Status finish() override { return {}; }
    void cancel() override {}
};

// A movie's whole sound as interleaved stereo; empty when it cannot be read.
inline std::vector<float> allSound(const fs::path& path)
{
    std::vector<float> pcm;
    auto reader = SoundReader::create(path);
    while (reader) {
        auto block = (*reader)->read();
        if (!block || block->empty())
            break;
        pcm.insert(pcm.end(), block->begin(), block->end());
    }
    return pcm;
}

// Times (seconds) at which interleaved stereo first rises above `level` after `quiet` seconds of quiet.
inline std::vector<double> soundOnsets(const std::vector<float>& pcm, float level = 0.1f, double quiet = 0.2)
{
    std::vector<double> onsets;
    int64_t lastLoud = -1'000'000'000;
    for (int64_t frame = 0; size_t(frame) * 2 + 1 < pcm.size(); ++frame) {
        if (std::fabs(pcm[size_t(frame) * 2]) < level)
            continue;
        if (frame - lastLoud > quiet * soundSampleRate)
            onsets.push_back(static_cast<double>(frame) / soundSampleRate);
        lastLoud = frame;
    }
    return onsets;
}

inline std::vector<double> soundOnsets(const fs::path& path, float level = 0.1f, double quiet = 0.2)
{
    return soundOnsets(allSound(path), level, quiet);
}

// The amplitude of a sine of `hz` in the left channel of interleaved 48 kHz stereo over [from, to) seconds.
inline double toneLevel(const std::vector<float>& pcm, double hz, double from, double to)
{
    double re = 0, im = 0;
    int64_t n = 0;
    for (int64_t f = std::llround(from * soundSampleRate); f < std::llround(to * soundSampleRate); ++f, ++n) {
        if (size_t(f) * 2 >= pcm.size())
            break;
        const double phase = 2 * M_PI * hz * double(f) / soundSampleRate;
        re += pcm[size_t(f) * 2] * std::cos(phase);
        im += pcm[size_t(f) * 2] * std::sin(phase);
    }
    return n > 0 ? 2 * std::hypot(re, im) / double(n) : 0;
}

} // namespace plim::testkit
