#include "captions/caption_model_text.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace plim {

std::optional<double> RateMeter::sample(int64_t bytes, double seconds)
{
    if (!m_last) {
        m_last = Sample{bytes, seconds};
        return m_rate;
    }
    const double elapsed = seconds - m_last->seconds;
    if (elapsed < 0.5)
        return m_rate;
    const double instant = double(std::max<int64_t>(bytes - m_last->bytes, 0)) / elapsed;
    m_rate = m_rate ? 0.3 * instant + 0.7 * *m_rate : instant;
    m_last = Sample{bytes, seconds};
    return m_rate;
}

namespace CaptionModelText {

std::optional<std::string> remaining(int64_t bytes, std::optional<double> bytesPerSecond)
{
    if (!bytesPerSecond || !(*bytesPerSecond > 1) || bytes <= 0)
        return std::nullopt;
    const double t = double(bytes) / *bytesPerSecond;
    if (t < 60)
        return "about " + std::to_string(std::max<long long>(std::llround(t), 1)) + " s left";
    if (t < 3600)
        return "about " + std::to_string(std::llround(t / 60)) + " min left";
    return "over an hour left";
}

static std::string scaled(double value, const char* unit)
{
    char text[32];
    std::snprintf(text, sizeof text, value < 10 ? "%.1f %s" : "%.0f %s", value, unit);
    return text;
}

std::string size(int64_t bytes)
{
    const double b = double(std::max<int64_t>(bytes, 0));
    if (b == 0)
        return "0 KB";
    if (b < 1e6)
        return scaled(b / 1e3, "KB");
    if (b < 1e9)
        return scaled(b / 1e6, "MB");
    return scaled(b / 1e9, "GB");
}

std::string rate(double bytesPerSecond) { return size(int64_t(bytesPerSecond)) + "/s"; }

} // namespace CaptionModelText

std::string CaptionModelFailure::message() const
{
    switch (kind) {
    case Kind::cannotWrite:
        return "Plim could not save the download (" + reason
            + "). Check the disk has space and is not locked, then try again.";
    case Kind::damagedTwice:
        return "Part of the download arrived damaged twice, so Plim threw it away rather than use it. Download again to start clean.";
    case Kind::serverRefused:
        return "The model's server did not send the file (error " + std::to_string(status)
            + "). What already came down is kept. Try again in a few minutes.";
    case Kind::offline:
        return "The download stopped because this computer lost its internet connection. What already came down is kept, so it picks up where it stopped. Check the connection, then try again.";
    case Kind::noSpace:
        return "Not enough free space. Better captions need " + CaptionModelText::size(needed)
            + " free and this computer has " + CaptionModelText::size(available)
            + ". Free up some space, then try again.";
    case Kind::wontLoad:
        return "The model downloaded but would not load on this computer. Captions keep using the built-in recognizer. Download again to replace it.";
    }
    return {};
}

std::string CaptionModelFailure::logMessage() const
{
    switch (kind) {
    case Kind::cannotWrite: return "model file could not be written (" + reason + ")";
    case Kind::damagedTwice: return "model file failed its checksum twice (" + reason + ")";
    case Kind::serverRefused: return "model download refused (HTTP " + std::to_string(status) + ", " + reason + ")";
    case Kind::offline: return "model download stopped (" + reason + ")";
    case Kind::noSpace:
        return "model download blocked (needs " + std::to_string(needed) + " bytes free, volume has "
            + std::to_string(available) + ")";
    case Kind::wontLoad: return "model would not load (" + reason + ")";
    }
    return {};
}

} // namespace plim
