#include "captions/caption_audio.h"

#include "base/log.h"
#include "captions/speech_engine.h"
#include "media/sound_reader.h"

#include <array>
#include <cmath>

namespace plim {

namespace {

static_assert(soundSampleRate == 3 * speechSampleRate && soundChannels == 2);

// A windowed-sinc low-pass at 7.2 kHz (of 48 kHz), Blackman window: over 70 dB down
// past 8 kHz, where the 16-kHz samples would fold it back.
constexpr size_t taps = 63;
const std::array<float, taps>& lowPass()
{
    static const std::array<float, taps> kernel = [] {
        std::array<float, taps> k{};
        const double cutoff = 7200.0 / soundSampleRate, mid = (taps - 1) / 2.0;
        double sum = 0;
        for (size_t i = 0; i < taps; ++i) {
            const double x = static_cast<double>(i) - mid;
            const double sinc = x == 0 ? 2 * cutoff : std::sin(2 * M_PI * cutoff * x) / (M_PI * x);
            const double w = 0.42 - 0.5 * std::cos(2 * M_PI * i / (taps - 1)) + 0.08 * std::cos(4 * M_PI * i / (taps - 1));
            k[i] = static_cast<float>(sinc * w);
            sum += sinc * w;
        }
        for (float& v : k)
            v = static_cast<float>(v / sum);
        return k;
    }();
    return kernel;
}

} // namespace

void CaptionAudio::downmix(const std::vector<float>& stereo48k, std::vector<float>& history, std::vector<float>& out)
{
    // `history` holds the mono 48-kHz samples not yet past the filter, its first one
    // always at a kept (multiple-of-three) position.
    for (size_t i = 0; i + 1 < stereo48k.size(); i += 2)
        history.push_back(0.5f * (stereo48k[i] + stereo48k[i + 1]));
    const auto& k = lowPass();
    size_t at = 0;
    for (; at + taps <= history.size(); at += 3) {
        float acc = 0;
        for (size_t j = 0; j < taps; ++j)
            acc += k[j] * history[at + j];
        out.push_back(acc);
    }
    history.erase(history.begin(), history.begin() + static_cast<std::ptrdiff_t>(at));
}

Result<std::vector<float>> CaptionAudio::monoSamples(const std::filesystem::path& movie, std::string_view reader,
    StopToken stop)
{
    const std::string who(reader);
    auto sound = SoundReader::create(movie);
    if (!sound) {
        logLine(LogArea::captions, "the plim's audio could not be opened (" + sound.error().sentence + ")");
        return fail("the plim's audio could not be opened for " + who, sound.error().kind);
    }
    std::vector<float> out, history;
    // Half the filter's length of silence in front, so sample 0 lines up with the movie's time 0.
    history.assign((taps - 1) / 2, 0.0f);
    bool any = false;
    while (true) {
        if (stop.stop_requested())
            return fail("Transcription cancelled. Nothing was written.", Error::Kind::stopped);
        auto block = (*sound)->read();
        if (!block) {
            logLine(LogArea::captions, "the plim's audio stopped being read (" + block.error().sentence + ")");
            if (!any)
                return fail("the plim's audio could not be read for " + who, Error::Kind::unreadable);
            return fail("reading the plim's audio stopped partway", Error::Kind::failed);
        }
        if (block->empty())
            break;
        any = true;
        downmix(*block, history, out);
    }
    if (any) {
        // Flush the filter's tail with silence.
        std::vector<float> tail((taps - 1), 0.0f);
        downmix(tail, history, out);
    }
    return out;
}

} // namespace plim
