#pragma once
// Plims with speech for the captions tests: sentences spoken by flite (Debian's speech
// synthesiser) with known pauses between them, written into a small movie the way the
// recorder writes one.

#include "base/image.h"
#include "media/movie_writer.h"
#include "media/sound_reader.h"
#include "testkit/testkit.h"

#include <cmath>
#include <string>
#include <vector>

namespace plim::testkit {

// Where a sentence's voice is heard in the plim: from its first to its last sample
// above the noise floor, in seconds.
struct SpokenSpan {
    std::string text;
    double start = 0;
    double end = 0;
};

struct SpeechTrack {
    std::vector<float> stereo; // 48 kHz interleaved
    std::vector<SpokenSpan> spans;
    double duration() const { return static_cast<double>(stereo.size() / 2) / soundSampleRate; }
};

// Each sentence spoken by flite (its 16-kHz voice "slt"), `pause` seconds of silence before each.
inline SpeechTrack fliteSpeech(const std::vector<std::string>& sentences, double pause, const fs::path& scratch)
{
    SpeechTrack track;
    for (size_t i = 0; i < sentences.size(); ++i) {
        track.stereo.resize(track.stereo.size() + 2 * static_cast<size_t>(pause * soundSampleRate), 0.0f);
        const fs::path wav = scratch / ("sentence" + std::to_string(i) + ".wav");
        if (runCommand({"flite", "-voice", "slt", "-t", sentences[i], "-o", wav.string()}).status != 0)
            return {};
        auto reader = SoundReader::create(wav);
        if (!reader)
            return {};
        std::optional<size_t> heardFrom, heardTo;
        while (true) {
            auto block = (*reader)->read();
            if (!block || block->empty())
                break;
            for (size_t f = 0; f < block->size() / 2; ++f)
                if (std::abs((*block)[2 * f]) > 0.01f) {
                    const size_t at = track.stereo.size() / 2 + f;
                    heardFrom = heardFrom.value_or(at);
                    heardTo = at;
                }
            track.stereo.insert(track.stereo.end(), block->begin(), block->end());
        }
        if (!heardFrom)
            return {};
        track.spans.push_back({sentences[i], static_cast<double>(*heardFrom) / soundSampleRate,
            static_cast<double>(*heardTo + 1) / soundSampleRate});
    }
    track.stereo.resize(track.stereo.size() + 2 * static_cast<size_t>(pause * soundSampleRate), 0.0f);
    return track;
}

// A plim movie of `duration` seconds: a grey picture at 4 frames a second and, unless
// `stereo` is empty, a system-sound track holding it.
inline Status writeSpeechPlim(const fs::path& movie, const std::vector<float>& stereo, double duration)
{
    auto settings = MovieWriter::Settings::recording(movie, 160, 96, 4);
    if (!stereo.empty())
        settings.sound.push_back(MovieWriter::systemSoundTrack());
    auto writer = PLIM_TRY(MovieWriter::create(settings));
    Image picture = Image::allocate(160, 96);
    for (int y = 0; y < 96; ++y)
        for (int x = 0; x < 160 * 4; ++x)
            picture.row(y)[x] = 0x80;
    for (int i = 0; i < static_cast<int>(std::ceil(duration * 4)); ++i)
        PLIM_TRY(writer->appendVideo(picture, i / 4.0));
    if (!stereo.empty())
        PLIM_TRY(writer->appendAudio(0, stereo.data(), static_cast<int64_t>(stereo.size() / 2), 0));
    return writer->finish();
}

} // namespace plim::testkit
