#include "share/share_progress.h"

#include <algorithm>

namespace plim {

std::string_view ShareStage::name(ID id)
{
    switch (id) {
    case ID::read: return "read";
    case ID::edit: return "edit";
    case ID::frames: return "frames";
    case ID::captions: return "captions";
    case ID::write: return "write";
    case ID::copyOriginal: return "copyOriginal";
    }
    return "read";
}

std::string_view ShareStage::name(State state)
{
    switch (state) {
    case State::waiting: return "waiting";
    case State::now: return "now";
    case State::done: return "done";
    case State::skipped: return "skipped";
    case State::failed: return "failed";
    }
    return "waiting";
}

std::string ShareStage::initialTitle(ID id)
{
    switch (id) {
    case ID::read: return "Reading the plim";
    case ID::edit: return "Applying the trim";
    case ID::frames: return "Drawing frames";
    case ID::captions: return "Captions are off";
    case ID::write: return "Writing the file";
    case ID::copyOriginal: return "Copying the original plim";
    }
    return {};
}

std::string ShareStage::editDetail(int cuts, int pauses, int spedUp, bool reordered)
{
    if (reordered)
        return " clips in their new order";
    std::vector<std::string> parts;
    if (cuts > 0)
        parts.push_back(std::to_string(cuts) + " cut");
    if (pauses > 0)
        parts.push_back(std::to_string(pauses) + " pause");
    if (spedUp > 0)
        parts.push_back(std::to_string(spedUp) + " sped-up");
    std::string detail;
    for (size_t i = 0; i < parts.size(); ++i)
        detail += (i ? " and " : "") + parts[i];
    return detail;
}

std::string ShareStage::framesTitle(const std::optional<std::vector<int>>& zoomStartFrames, int currentFrame)
{
    if (!zoomStartFrames)
        return "Drawing frames";
    const int m = static_cast<int>(zoomStartFrames->size());
    if (m == 0)
        return "Rendering the staged plim";
    const int started = static_cast<int>(std::count_if(zoomStartFrames->begin(), zoomStartFrames->end(),
        [&](int start) { return start <= currentFrame; }));
    const int n = std::clamp(started, 1, m);
    return "Rendering zooms " + std::to_string(n) + " of " + std::to_string(m);
}

std::string ShareStage::framesDoneTitle(int zoomCount)
{
    if (zoomCount <= 0)
        return "Rendered";
    return "Rendered " + std::to_string(zoomCount) + " zoom" + (zoomCount == 1 ? "" : "s");
}

std::string ShareStage::lineCount(int lines)
{
    return std::to_string(lines) + " line" + (lines == 1 ? "" : "s");
}

ShareProgress ShareProgress::initial(bool original)
{
    ShareProgress progress;
    for (ShareStage::ID id : {ShareStage::ID::read, ShareStage::ID::edit, ShareStage::ID::frames, ShareStage::ID::captions,
             ShareStage::ID::write, ShareStage::ID::copyOriginal}) {
        ShareStage stage{id, ShareStage::initialTitle(id), {}, ShareStage::State::waiting, false};
        const bool renders = id != ShareStage::ID::copyOriginal && id != ShareStage::ID::read;
        if (original ? renders : id == ShareStage::ID::copyOriginal)
            stage.skips = true;
        progress.stages.push_back(std::move(stage));
    }
    return progress;
}

ShareStage* ShareProgress::stage(ShareStage::ID id)
{
    auto found = std::find_if(stages.begin(), stages.end(), [&](const ShareStage& s) { return s.id == id; });
    return found == stages.end() ? nullptr : &*found;
}

const ShareStage* ShareProgress::stage(ShareStage::ID id) const
{
    return const_cast<ShareProgress*>(this)->stage(id);
}

} // namespace plim
