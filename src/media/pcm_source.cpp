#include "media/pcm_source.h"

#include "media/sound_reader.h"

#include <algorithm>
#include <cstring>

namespace plim {

namespace {

// A jump ahead by more than this reopens the file rather than decoding what lies between.
constexpr int64_t reopenAhead = 30 * soundSampleRate;

// Copies stereo frames [from, from + count) out of `samples`, which begin at frame
// `samplesStart`, into a zero-filled block.
std::vector<float> window(const std::vector<float>& samples, int64_t samplesStart, int64_t from, int64_t count)
{
    std::vector<float> out(2 * static_cast<size_t>(count), 0.0f);
    int64_t have = static_cast<int64_t>(samples.size() / 2);
    int64_t lo = std::max(from, samplesStart);
    int64_t hi = std::min(from + count, samplesStart + have);
    if (hi > lo)
        std::memcpy(out.data() + 2 * (lo - from), samples.data() + 2 * (lo - samplesStart),
            2 * static_cast<size_t>(hi - lo) * sizeof(float));
    return out;
}

} // namespace

Result<std::vector<float>> ArrayPCMSource::read(int64_t from, int64_t count)
{
    if (count <= 0)
        return std::vector<float>{};
    return window(samples, 0, from, count);
}

AssetPCMSource::AssetPCMSource(std::filesystem::path path, std::string name)
    : m_path(std::move(path))
    , m_name(std::move(name))
{
}

AssetPCMSource::~AssetPCMSource() = default;

Status AssetPCMSource::reopen(int64_t at)
{
    m_reader.reset();
    m_buffer.clear();
    at = std::max<int64_t>(at, 0);
    ++m_opens;
    auto reader = SoundReader::create(m_path, at);
    if (!reader) {
        const Error& e = reader.error();
        if (e.kind == Error::Kind::refused)
            return fail(m_name + " has sound Plim cannot decode. Record it again, or share it as the original plim.",
                Error::Kind::unreadable);
        return fail(m_name + " could not be opened (" + e.sentence
                + "). Share again; if it keeps happening, the file may be damaged.",
            e.kind == Error::Kind::missing ? Error::Kind::missing : Error::Kind::unreadable);
    }
    m_reader = std::move(*reader);
    m_bufferStart = at;
    m_fileFrame = m_reader->position();
    m_exhausted = false;
    return {};
}

Status AssetPCMSource::pullUntil(int64_t end)
{
    while (!m_exhausted && m_fileFrame < end) {
        auto block = m_reader->read();
        if (!block) {
            const Error& e = block.error();
            if (e.kind == Error::Kind::failed)
                return fail(m_name + " stopped reading part way " + e.sentence
                        + ". Nothing was saved. Share again; if it keeps happening, the file may be damaged.",
                    Error::Kind::unreadable);
            return fail(m_name + " could not be read: " + e.sentence + ". Share again in a moment.",
                Error::Kind::unreadable);
        }
        if (block->empty()) {
            m_exhausted = true;
            break;
        }
        m_buffer.insert(m_buffer.end(), block->begin(), block->end());
        m_fileFrame += static_cast<int64_t>(block->size() / 2);
    }
    return {};
}

Result<std::vector<float>> AssetPCMSource::read(int64_t from, int64_t count)
{
    if (count <= 0)
        return std::vector<float>{};
    int64_t end = from + count;
    if (end <= 0)
        return std::vector<float>(2 * static_cast<size_t>(count), 0.0f);
    int64_t wanted = std::max<int64_t>(from, 0);
    if (!m_reader || wanted < m_bufferStart || (!m_exhausted && wanted > m_fileFrame + reopenAhead))
        PLIM_TRY(reopen(wanted));
    PLIM_TRY(pullUntil(end));
    std::vector<float> out = window(m_buffer, m_bufferStart, from, count);
    // Roll the buffer: what lies before this read is not asked for again in order.
    int64_t drop = std::clamp<int64_t>(wanted - m_bufferStart, 0, static_cast<int64_t>(m_buffer.size() / 2));
    m_buffer.erase(m_buffer.begin(), m_buffer.begin() + 2 * drop);
    m_bufferStart += drop;
    return out;
}

} // namespace plim
