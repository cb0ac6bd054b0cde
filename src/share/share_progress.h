#pragma once
// The checklist a share shows: its stages in order, each waiting, now, done, skipped or
// failed, with a title and a detail line, and the bar under them. The wording of every
// stage lives here, beside the rules that choose it.

#include <optional>
#include <string>
#include <vector>

namespace plim {

struct ShareStage {
    enum class ID { read, edit, frames, captions, write, copyOriginal };
    enum class State { waiting, now, done, skipped, failed };

    ID id = ID::read;
    std::string title;
    std::string detail;
    State state = State::waiting;
    bool skips = false; // shown struck through: it does nothing in this share

    bool operator==(const ShareStage&) const = default;

    static std::string_view name(ID id);       // "read", "edit", ...
    static std::string_view name(State state); // "waiting", "now", ...

    // The titles a stage starts with.
    static std::string initialTitle(ID id);

    // "2 cut and 1 pause and 3 sped-up"; " clips in their new order" when reordered;
    // empty when the edit does nothing.
    static std::string editDetail(int cuts, int pauses, int spedUp, bool reordered);
    // While rendering: "Drawing frames" before zoom starts are known, "Rendering the staged
    // plim" without zooms, else "Rendering zooms n of m".
    static std::string framesTitle(const std::optional<std::vector<int>>& zoomStartFrames, int currentFrame);
    // When rendered: "Rendered", or "Rendered 3 zooms".
    static std::string framesDoneTitle(int zoomCount);
    // "4 lines" / "1 line".
    static std::string lineCount(int lines);
};

struct ShareProgress {
    std::vector<ShareStage> stages;
    double fraction = 0; // 0...1
    int framesDone = 0;
    int framesTotal = 0;
    std::string footline;

    bool operator==(const ShareProgress&) const = default;

    // Every stage waiting, in order; `original` lists copyOriginal only as its work.
    static ShareProgress initial(bool original);
    ShareStage* stage(ShareStage::ID id);
    const ShareStage* stage(ShareStage::ID id) const;
};

} // namespace plim
