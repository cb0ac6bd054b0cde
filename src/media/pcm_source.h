#pragma once
// Sound sources for the mixer: anything that yields 48 kHz interleaved stereo float.
//
// Thread contract: a source is used by one thread at a time (the render thread).

#include "base/error.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace plim {

class SoundReader;

class PCMSource {
public:
    virtual ~PCMSource() = default;
    // Interleaved stereo samples (2 × count floats) for frames [from, from + count);
    // frames past the end (or before 0) are zeros. A count of zero or less gives an empty
    // vector.
    virtual Result<std::vector<float>> read(int64_t from, int64_t count) = 0;
};

// Sound held in memory.
class ArrayPCMSource : public PCMSource {
public:
    explicit ArrayPCMSource(std::vector<float> samples) : samples(std::move(samples)) {}
    Result<std::vector<float>> read(int64_t from, int64_t count) override;

    std::vector<float> samples; // interleaved stereo
};

// A movie's or sound file's sound tracks, mixed, as 48 kHz stereo float. The file is
// opened on the first read. A rolling buffer starts at `bufferStart`; a read before it
// reopens the file at the asked frame, a read past it pulls further blocks until it has
// enough or the file has ended, after which frames are zeros.
//
// Failure sentences start with `name` ("The plim's sound", or a voiceover's label):
//   cannot open:         name + " could not be opened (" + reason + "). Share again; if it
//                        keeps happening, the file may be damaged."
//   no decodable sound:  name + " has sound Plim cannot decode. Record it again, or share
//                        it as the original plim."
//   read error:          name + " could not be read: " + reason + ". Share again in a moment."
//   stops early:         name + " stopped reading part way " + reason + " Nothing was saved.
//                        Share again; if it keeps happening, the file may be damaged."
class AssetPCMSource : public PCMSource {
public:
    AssetPCMSource(std::filesystem::path path, std::string name);
    ~AssetPCMSource() override;
    Result<std::vector<float>> read(int64_t from, int64_t count) override;

    // Opens the file now, at its start, rather than at the first read. Opening a movie
    // decodes a picture while it probes (tens of MB for a moment at 3840 x 2160), which a
    // render does best before its own pictures are in flight. Fails as `read` would.
    Status open() { return m_reader ? Status{} : reopen(0); }

    const std::string& name() const { return m_name; }
    // How many times the file was (re)opened; for tests and diagnostics.
    int opens() const { return m_opens; }

private:
    Status reopen(int64_t at);
    Status pullUntil(int64_t end);

    std::filesystem::path m_path;
    std::string m_name;
    std::unique_ptr<SoundReader> m_reader;
    std::vector<float> m_buffer;  // interleaved, from bufferStart
    int64_t m_bufferStart = 0;
    int64_t m_fileFrame = 0;      // frame the reader delivers next
    bool m_exhausted = false;
    int m_opens = 0;
};

} // namespace plim
