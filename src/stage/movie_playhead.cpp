#include "stage/movie_playhead.h"

namespace plim {

namespace {

// Further ahead than this, a seek (decoding from the key frame before the time) is cheaper
// than decoding every picture on the way.
constexpr double readOnReach = 2.0;

} // namespace

Result<const VideoFrame*> MoviePlayhead::at(double time)
{
    const double position = m_current ? m_current->time : 0.0;
    if (time < position - 1e-6 || time > position + readOnReach) {
        PLIM_TRY(m_reader->seek(time));
        m_current.reset();
        m_pending.reset();
        m_ended = false;
    }
    while (!m_ended) {
        if (!m_pending) {
            auto next = PLIM_TRY(m_reader->nextRaw());
            if (!next) {
                m_ended = true;
                break;
            }
            m_pending = std::move(*next);
        }
        if (m_current && m_pending->time > time)
            break;
        m_current = std::move(m_pending);
        m_pending.reset();
    }
    if (!m_current)
        return nullptr;
    if (!m_picture || m_picture->time != m_current->time || m_picture->image.isEmpty())
        m_picture = VideoFrame{PLIM_TRY(m_converter.convert(*m_current)), m_current->time};
    return &*m_picture;
}

void MoviePlayhead::setPictureSize(int width, int height, const std::string& movieName)
{
    m_converter = PictureConverter(movieName, width, height);
    m_picture.reset();
}

} // namespace plim
