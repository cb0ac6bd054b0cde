#include "capture/keystroke_recorder.h"

#include "base/text.h"

#include <algorithm>
#include <string_view>
#include <utf8proc.h>
#include <xkbcommon/xkbcommon.h>

namespace plim {

namespace {

constexpr std::string_view controlSymbol = "⌃";
constexpr std::string_view optionSymbol = "⌥";
constexpr std::string_view shiftSymbol = "⇧";
constexpr std::string_view commandSymbol = "⌘";

// Keys that are captioned whatever modifiers are held. Keypad navigation keys (NumLock
// off) show as the keys they stand for.
std::optional<std::string_view> specialSymbol(uint32_t keysym)
{
    switch (keysym) {
    case XKB_KEY_Return:
    case XKB_KEY_KP_Enter:
        return "⏎";
    case XKB_KEY_Tab:
    case XKB_KEY_ISO_Left_Tab: // Shift-Tab
    case XKB_KEY_KP_Tab:
        return "⇥";
    case XKB_KEY_BackSpace:
        return "⌫";
    case XKB_KEY_Escape:
        return "⎋";
    case XKB_KEY_Home:
    case XKB_KEY_KP_Home:
        return "↖";
    case XKB_KEY_Page_Up:
    case XKB_KEY_KP_Page_Up:
        return "⇞";
    case XKB_KEY_Delete:
    case XKB_KEY_KP_Delete:
        return "⌦";
    case XKB_KEY_End:
    case XKB_KEY_KP_End:
        return "↘";
    case XKB_KEY_Page_Down:
    case XKB_KEY_KP_Page_Down:
        return "⇟";
    case XKB_KEY_Left:
    case XKB_KEY_KP_Left:
        return "←";
    case XKB_KEY_Right:
    case XKB_KEY_KP_Right:
        return "→";
    case XKB_KEY_Down:
    case XKB_KEY_KP_Down:
        return "↓";
    case XKB_KEY_Up:
    case XKB_KEY_KP_Up:
        return "↑";
    default:
        return std::nullopt;
    }
}

// A letter or a digit of any script (Unicode categories L and N).
bool isLetterOrNumber(char32_t c)
{
    switch (utf8proc_category(static_cast<utf8proc_int32_t>(c))) {
    case UTF8PROC_CATEGORY_LU:
    case UTF8PROC_CATEGORY_LL:
    case UTF8PROC_CATEGORY_LT:
    case UTF8PROC_CATEGORY_LM:
    case UTF8PROC_CATEGORY_LO:
    case UTF8PROC_CATEGORY_ND:
    case UTF8PROC_CATEGORY_NL:
    case UTF8PROC_CATEGORY_NO:
        return true;
    default:
        return false;
    }
}

constexpr std::u32string_view captionedPunctuation = U"`-=[]\\;',./";

} // namespace

std::optional<std::string> KeystrokeRecorder::caption(const KeyPress& press)
{
    const KeyModifiers& m = press.modifiers;
    std::string out;
    if (m.control)
        out += controlSymbol;
    if (m.option)
        out += optionSymbol;
    if (m.shift)
        out += shiftSymbol;
    if (m.command)
        out += commandSymbol;

    if (auto symbol = specialSymbol(press.keysym)) {
        out += *symbol;
        return out;
    }
    // Plain and shifted typing is never kept.
    if (!m.control && !m.option && !m.command)
        return std::nullopt;

    // The key's upper-case symbol; where that is no key symbol (ß, µ, ÿ), the character's
    // own upper case.
    char32_t c = xkb_keysym_to_utf32(xkb_keysym_to_upper(press.keysym));
    if (c == 0)
        c = xkb_keysym_to_utf32(press.keysym);
    std::string symbol = utf8Encode(upperCase(c));
    if (c == 0 || symbol.empty())
        return std::nullopt;
    if (!isLetterOrNumber(upperCase(c)) && captionedPunctuation.find(c) == std::u32string_view::npos)
        return std::nullopt;
    out += symbol;
    return out;
}

KeystrokeRecorder::KeystrokeRecorder(KeySource& keys, const Clock& clock)
    : m_keys(keys)
    , m_clock(clock)
{
}

KeystrokeRecorder::~KeystrokeRecorder() { (void)stop(); }

void KeystrokeRecorder::start()
{
    {
        std::lock_guard lock(m_lock);
        if (m_monitor)
            return;
        m_startUptime = m_clock.uptime();
    }
    // Without permission to watch keys nothing is recorded and the track stays empty.
    auto token = m_keys.install([this](const KeyPress& press) { record(press); });
    if (!token)
        return;
    std::lock_guard lock(m_lock);
    m_monitor = *token;
}

KeystrokeTrack KeystrokeRecorder::stop()
{
    std::optional<KeySource::Token> token;
    {
        std::lock_guard lock(m_lock);
        token = std::exchange(m_monitor, std::nullopt);
    }
    if (token)
        m_keys.remove(*token);
    std::lock_guard lock(m_lock);
    return KeystrokeTrack{m_events};
}

KeystrokeTrack KeystrokeRecorder::snapshot() const
{
    std::lock_guard lock(m_lock);
    return KeystrokeTrack{m_events};
}

void KeystrokeRecorder::pause()
{
    std::lock_guard lock(m_lock);
    if (!m_pausedSince)
        m_pausedSince = m_clock.uptime();
}

void KeystrokeRecorder::resume()
{
    std::lock_guard lock(m_lock);
    if (m_pausedSince) {
        m_pausedAccum += m_clock.uptime() - *m_pausedSince;
        m_pausedSince.reset();
    }
}

void KeystrokeRecorder::record(const KeyPress& press)
{
    auto text = caption(press);
    if (!text)
        return;
    std::lock_guard lock(m_lock);
    if (m_pausedSince)
        return;
    double at = eventInstant(press.at, m_clock.uptime());
    double ms = std::max(0.0, at - m_startUptime - m_pausedAccum) * 1000.0;
    int64_t t = ms < 9.2e18 ? static_cast<int64_t>(ms) : INT64_MAX;
    m_events.push_back(KeyEvent{t, std::move(*text)});
}

bool KeystrokeRecorder::isMonitoring() const
{
    std::lock_guard lock(m_lock);
    return m_monitor.has_value();
}

double KeystrokeRecorder::startUptime() const
{
    std::lock_guard lock(m_lock);
    return m_startUptime;
}

} // namespace plim
