#include "share/share_options.h"

#include "base/dates.h"
#include "base/places.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>

namespace plim {

std::string_view toString(ShareKind kind)
{
    switch (kind) {
    case ShareKind::video: return "video";
    case ShareKind::gif: return "gif";
    case ShareKind::original: return "original";
    }
    return "video";
}

std::optional<ShareKind> parseShareKind(std::string_view text)
{
    for (ShareKind kind : {ShareKind::video, ShareKind::gif, ShareKind::original})
        if (text == toString(kind))
            return kind;
    if (text == "mp4" || text == "movie")
        return ShareKind::video;
    return std::nullopt;
}

std::string_view toString(ShareQuality quality)
{
    switch (quality) {
    case ShareQuality::p720: return "p720";
    case ShareQuality::p1080: return "p1080";
    case ShareQuality::p4K: return "p4K";
    }
    return "p1080";
}

int shortSide(ShareQuality quality)
{
    switch (quality) {
    case ShareQuality::p720: return 720;
    case ShareQuality::p1080: return 1080;
    case ShareQuality::p4K: return 2160;
    }
    return 1080;
}

std::string_view label(ShareQuality quality, ShareKind kind)
{
    const bool gif = kind == ShareKind::gif;
    switch (quality) {
    case ShareQuality::p720: return gif ? "Small" : "720p";
    case ShareQuality::p1080: return gif ? "Medium" : "1080p";
    case ShareQuality::p4K: return gif ? "Large" : "4K";
    }
    return "1080p";
}

std::optional<ShareQuality> parseShareQuality(std::string_view text)
{
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    for (ShareQuality quality : {ShareQuality::p720, ShareQuality::p1080, ShareQuality::p4K}) {
        for (std::string_view name : {label(quality, ShareKind::gif), label(quality, ShareKind::video), toString(quality)}) {
            std::string candidate(name);
            std::transform(candidate.begin(), candidate.end(), candidate.begin(), [](unsigned char c) { return std::tolower(c); });
            if (candidate == lower)
                return quality;
        }
    }
    if (lower == "2160p")
        return ShareQuality::p4K;
    return std::nullopt;
}

namespace ShareOptions {

std::string clock(double seconds)
{
    const long long whole = std::isfinite(seconds) && seconds > 0 ? static_cast<long long>(std::floor(seconds)) : 0;
    char text[48];
    if (whole < 3600)
        std::snprintf(text, sizeof text, "%lld:%02lld", whole / 60, whole % 60);
    else
        std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", whole / 3600, (whole / 60) % 60, whole % 60);
    return text;
}

std::optional<std::string> enlargementNote(ShareKind kind, ShareQuality quality, std::optional<Size> recorded)
{
    if (kind != ShareKind::video || !recorded || !(recorded->width >= 2) || !(recorded->height >= 2))
        return std::nullopt;
    const double s = std::min(recorded->width, recorded->height);
    if (!(s + 1 < shortSide(quality)))
        return std::nullopt;
    return "This plim was recorded at " + std::to_string(static_cast<long long>(s)) + "p, so "
        + std::string(label(quality, kind)) + " is enlarged from it, not sharper.";
}

std::string sizeText(int64_t bytes)
{
    char text[32];
    const double b = static_cast<double>(std::max<int64_t>(bytes, 0));
    if (b < 1000)
        std::snprintf(text, sizeof text, "%lld bytes", static_cast<long long>(b));
    else if (b < 1e6)
        std::snprintf(text, sizeof text, "%.0f KB", b / 1e3);
    else if (b < 1e9)
        std::snprintf(text, sizeof text, "%.1f MB", b / 1e6);
    else
        std::snprintf(text, sizeof text, "%.2f GB", b / 1e9);
    return text;
}

std::string kindFormat(ShareKind kind, Size canvas)
{
    return std::to_string(static_cast<long long>(canvas.width)) + "×" + std::to_string(static_cast<long long>(canvas.height))
        + " · " + (kind == ShareKind::gif ? "gif" : "mp4");
}

} // namespace ShareOptions

namespace ShareFiles {

fs::path defaultCopiesFolder()
{
    fs::path caches = Places::cacheHome();
    if (caches.empty())
        return fs::temp_directory_path() / "Plim Copies";
    return caches / "Plim Copies";
}

std::string extension(ShareKind kind, const fs::path& recording)
{
    switch (kind) {
    case ShareKind::video: return ".mp4";
    case ShareKind::gif: return ".gif";
    case ShareKind::original: return recording.extension().string();
    }
    return ".mp4";
}

} // namespace ShareFiles

} // namespace plim
