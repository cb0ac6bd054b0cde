#include "capture/key_source.h"

#include <vector>

namespace plim {

Result<KeySource::Token> ScriptedKeySource::install(Handler handler)
{
    std::lock_guard lock(m_mutex);
    if (m_refusing)
        return fail("Plim cannot watch the keyboard, so keycaps are not recorded. Nothing was lost. "
                    "Allow Plim to read input, then record again.");
    Token token = m_next++;
    m_handlers.emplace(token, std::move(handler));
    return token;
}

void ScriptedKeySource::remove(Token token)
{
    std::lock_guard delivery(m_delivery);
    std::lock_guard lock(m_mutex);
    m_handlers.erase(token);
}

void ScriptedKeySource::press(const KeyPress& press)
{
    std::lock_guard delivery(m_delivery);
    std::vector<Handler> handlers;
    {
        std::lock_guard lock(m_mutex);
        for (const auto& [token, handler] : m_handlers)
            handlers.push_back(handler);
    }
    for (const auto& handler : handlers)
        handler(press);
}

void ScriptedKeySource::setRefusing(bool refusing)
{
    std::lock_guard lock(m_mutex);
    m_refusing = refusing;
}

int ScriptedKeySource::installedCount() const
{
    std::lock_guard lock(m_mutex);
    return static_cast<int>(m_handlers.size());
}

} // namespace plim
