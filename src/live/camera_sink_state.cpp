#include "live/camera_sink_state.h"

namespace plim {

void CameraSinkState::open()
{
    std::lock_guard lock(m_lock);
    m_opened = true;
}

bool CameraSinkState::mayConnect(double now)
{
    std::lock_guard lock(m_lock);
    if (m_lastConnectAttempt && now - *m_lastConnectAttempt < connectPace)
        return false;
    m_lastConnectAttempt = now;
    return true;
}

void CameraSinkState::connected()
{
    std::lock_guard lock(m_lock);
    m_sentence.reset();
}

void CameraSinkState::failed(std::string sentence)
{
    std::lock_guard lock(m_lock);
    m_sentence = std::move(sentence);
}

void CameraSinkState::dropped()
{
    std::lock_guard lock(m_lock);
    ++m_dropped;
}

void CameraSinkState::refused()
{
    std::lock_guard lock(m_lock);
    ++m_dropped;
    ++m_refusedInARow;
}

void CameraSinkState::taken()
{
    std::lock_guard lock(m_lock);
    m_takenAny = true;
    m_refusedInARow = 0;
}

void CameraSinkState::close()
{
    std::lock_guard lock(m_lock);
    m_opened = false;
    m_takenAny = false;
    m_refusedInARow = 0;
    m_sentence.reset();
}

LiveSinkHealth CameraSinkState::health() const
{
    std::lock_guard lock(m_lock);
    if (!m_opened)
        return {LiveSinkHealth::Idle{}};
    if (m_sentence)
        return {LiveSinkHealth::Failed{*m_sentence}};
    if (!m_takenAny)
        return {LiveSinkHealth::Opening{}};
    if (m_refusedInARow >= refusalLimit)
        return {LiveSinkHealth::Failed{m_notTaking}};
    return {LiveSinkHealth::Running{m_dropped}};
}

} // namespace plim
