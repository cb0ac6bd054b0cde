#pragma once
// What a mix plays, in output frames: which stretches of a recording's sound play where (at
// normal speed, or time-stretched with their pitch kept where they are sped up), and where
// each voiceover plays and how far it ducks the recording. Plain data; SoundMixer plays it.

#include <cstdint>
#include <vector>

namespace plim {

struct SoundMix {
    // A stretch of recorded sound played at normal speed.
    struct Piece {
        int64_t rawStart = 0; // first frame in the recording's sound
        int64_t outStart = 0; // first frame in the output
        int64_t count = 0;    // frames
        bool operator==(const Piece&) const = default;
    };

    // A sped-up stretch: `rawCount` frames of the recording from `rawStart` played in
    // `count` output frames from `outStart`, time-stretched with the pitch kept.
    struct Stretch {
        int64_t rawStart = 0;
        int64_t rawCount = 0;
        int64_t outStart = 0;
        int64_t count = 0;
        double rate = 1; // source seconds per output second
        bool operator==(const Stretch&) const = default;
    };

    struct Voice {
        int index = 0;        // which voiceover source
        int64_t outStart = 0;
        int64_t count = 0;
        float micUnder = 1;   // gain on the recording while the voice plays
        bool operator==(const Voice&) const = default;
    };

    std::vector<Piece> pieces;
    std::vector<Stretch> stretches;
    std::vector<Voice> voices;
    int64_t totalFrames = 0;
    double sampleRate = 48000;

    bool operator==(const SoundMix&) const = default;

    // Seconds × rate rounded to the nearest whole frame.
    static int64_t frames(double seconds, double sampleRate);

    // Ducking ramps last this many frames: max(round(rate × 0.15), 1).
    int64_t rampFrames() const;

    // Whether output frames [from, to) lie within a ramp's reach of some voice.
    bool touchesAVoice(int64_t from, int64_t to) const;
};

} // namespace plim
