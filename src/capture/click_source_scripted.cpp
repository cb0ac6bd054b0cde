#include "capture/click_source.h"

#include <vector>

namespace plim {

Result<ClickSource::Token> ScriptedClickSource::install(Handler handler)
{
    std::lock_guard lock(m_mutex);
    if (m_refusing)
        return fail("Plim cannot watch the mouse buttons, so clicks are not recorded. Nothing was lost. "
                    "Allow Plim to read input, then record again.");
    Token token = m_next++;
    m_handlers.emplace(token, std::move(handler));
    return token;
}

void ScriptedClickSource::remove(Token token)
{
    std::lock_guard delivery(m_delivery);
    std::lock_guard lock(m_mutex);
    m_handlers.erase(token);
}

void ScriptedClickSource::press(const Press& press)
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

void ScriptedClickSource::setRefusing(bool refusing)
{
    std::lock_guard lock(m_mutex);
    m_refusing = refusing;
}

int ScriptedClickSource::installedCount() const
{
    std::lock_guard lock(m_mutex);
    return static_cast<int>(m_handlers.size());
}

} // namespace plim
