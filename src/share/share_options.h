#pragma once
// What a share makes and where it goes: the kind, the quality, the destination, and the
// small naming and wording rules the share sheet and the engine both use.

#include "base/geometry.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace plim {

namespace fs = std::filesystem;

enum class ShareKind { video, gif, original };
enum class ShareQuality { p720, p1080, p4K };

std::string_view toString(ShareKind kind);       // "video", "gif", "original"
std::optional<ShareKind> parseShareKind(std::string_view text);
std::string_view toString(ShareQuality quality); // "p720", "p1080", "p4K"

// The quality's target short side: 720, 1080 or 2160 pixels.
int shortSide(ShareQuality quality);
// The button text: "Small", "Medium", "Large" for GIFs, else "720p", "1080p", "4K".
std::string_view label(ShareQuality quality, ShareKind kind);
// A quality named by its label (either family, any case) or by its case name.
std::optional<ShareQuality> parseShareQuality(std::string_view text);

// A folder the user picked, or a copy for the clipboard (written into the copies folder).
struct ShareDestination {
    std::optional<fs::path> folder; // nothing: copy
    static ShareDestination save(fs::path to) { return {std::move(to)}; }
    static ShareDestination copy() { return {}; }
    bool isCopy() const { return !folder; }
    bool operator==(const ShareDestination&) const = default;
};

namespace ShareOptions {
// Whole seconds, "m:ss" under an hour, else "h:mm:ss".
std::string clock(double seconds);
// For a video enlarged past what was recorded: "This plim was recorded at 720p, so 1080p
// is enlarged from it, not sharper." Nothing otherwise.
std::optional<std::string> enlargementNote(ShareKind kind, ShareQuality quality, std::optional<Size> recorded);
// "840 KB", "4.2 MB", "1.3 GB" (decimal units, as file managers show them).
std::string sizeText(int64_t bytes);
// "1728×1080 · mp4" under the quality buttons.
std::string kindFormat(ShareKind kind, Size canvas);
} // namespace ShareOptions

namespace ShareFiles {
// $XDG_CACHE_HOME/Plim Copies (the temporary folder's when there is no cache folder).
fs::path defaultCopiesFolder();
// The extension a kind writes: ".mp4", ".gif", or the recording's own for `original`.
std::string extension(ShareKind kind, const fs::path& recording);
} // namespace ShareFiles

} // namespace plim
