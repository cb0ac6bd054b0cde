#include "testing/scripted_sources.h"

namespace plim {

std::optional<Point> ScriptedPointerSource::position()
{
    std::lock_guard lock(m_mutex);
    return m_position;
}

double ScriptedPointerSource::secondsSinceLastKeyDown()
{
    std::lock_guard lock(m_mutex);
    return m_sinceKeyDown;
}

std::optional<Rect> ScriptedPointerSource::windowFrame(uint32_t windowID)
{
    std::lock_guard lock(m_mutex);
    ++m_frameQueries;
    auto it = m_frames.find(windowID);
    if (it == m_frames.end())
        return std::nullopt;
    return it->second;
}

void ScriptedPointerSource::setPosition(std::optional<Point> point)
{
    std::lock_guard lock(m_mutex);
    m_position = point;
}

void ScriptedPointerSource::setSecondsSinceLastKeyDown(double seconds)
{
    std::lock_guard lock(m_mutex);
    m_sinceKeyDown = seconds;
}

void ScriptedPointerSource::setWindowFrame(uint32_t windowID, std::optional<Rect> frame)
{
    std::lock_guard lock(m_mutex);
    if (frame)
        m_frames[windowID] = *frame;
    else
        m_frames.erase(windowID);
}

int ScriptedPointerSource::windowFrameQueries() const
{
    std::lock_guard lock(m_mutex);
    return m_frameQueries;
}

} // namespace plim
