// PlimDocument: trims and clips.
#include "library/plim_document.h"
#include "library/plim_document_ops.h"

#include "base/dates.h"
#include "plan/plan.h"

#include <algorithm>
#include <cmath>

namespace plim {

using namespace document_detail;

// --- Trims and clips ---

double PlimDocument::trimEnd(const PlimEdits& edits) const
{
    if (edits.plan.trimOut && finite(*edits.plan.trimOut))
        return std::clamp(*edits.plan.trimOut, 0.0, m_duration);
    return m_duration;
}

std::vector<PlimClip> PlimDocument::clipsFor(const PlimEdits& edits) const
{
    if (edits.plan.clips && !edits.plan.clips->empty())
        return *edits.plan.clips;
    std::vector<PlimClip> out;
    long long number = 0;
    for (const auto& segment : edits.plan.segments(m_duration))
        out.push_back(PlimClip{PlimClip::idForNumber(number++), segment.start, segment.end});
    return out;
}

std::vector<PlimClip> PlimDocument::clips() const { return clipsFor(m_edits); }

void PlimDocument::storeClips(PlimEdits& edits, std::vector<PlimClip> clips) { edits.plan.clips = std::move(clips); }

void PlimDocument::setTrimIn(double t)
{
    if (!finite(t))
        return;
    if (m_edits.plan.clips && !m_edits.plan.clips->empty()) {
        setClipStart(m_edits.plan.clips->front().id, t);
        return;
    }
    change([&](PlimEdits& e) {
        double value = std::max(0.0, std::min(t, trimEnd(e) - minimumSpan));
        if (!e.plan.trimIn && value == 0)
            return;
        e.plan.trimIn = value;
    });
}

void PlimDocument::setTrimOut(double t)
{
    if (!finite(t) || m_duration <= 0)
        return;
    if (m_edits.plan.clips && !m_edits.plan.clips->empty()) {
        setClipEnd(m_edits.plan.clips->back().id, t);
        return;
    }
    change([&](PlimEdits& e) {
        double start = e.plan.trimIn && finite(*e.plan.trimIn) ? std::max(0.0, *e.plan.trimIn) : 0.0;
        double value = std::min(m_duration, std::max(t, start + minimumSpan));
        if (!e.plan.trimOut && value == m_duration)
            return;
        e.plan.trimOut = value;
    });
}

void PlimDocument::changeClip(std::string_view id, const std::function<void(PlimClip&)>& edit)
{
    change([&](PlimEdits& e) {
        auto clips = clipsFor(e);
        PlimClip* clip = findByID(clips, id);
        if (!clip)
            return;
        edit(*clip);
        storeClips(e, std::move(clips));
    });
}

void PlimDocument::setClipStart(std::string_view id, double to)
{
    if (!finite(to))
        return;
    changeClip(id, [&](PlimClip& clip) { clip.start = std::max(0.0, std::min(to, clip.end - minimumSpan)); });
}

void PlimDocument::setClipEnd(std::string_view id, double to)
{
    if (!finite(to) || m_duration <= 0)
        return;
    changeClip(id, [&](PlimClip& clip) { clip.end = std::min(m_duration, std::max(to, clip.start + minimumSpan)); });
}

Result<PlimDocument::SplitClips> PlimDocument::splitClip(double at)
{
    if (!finite(at))
        return fail(splitOffClipSentence(), Error::Kind::refused);
    Result<SplitClips> result;
    change([&](PlimEdits& e) {
        auto clips = clipsFor(e);
        std::vector<RemapStep> rates;
        for (const auto& step : e.plan.steps(m_duration))
            if (!step.mode.isCut())
                rates.push_back(step);
        ClipTimeline timeline = ClipTimeline::make(clips, rates, m_duration);
        auto piece = timeline.pieceAt(at);
        auto raw = timeline.rawTime(at);
        if (!piece || !raw || *piece >= timeline.pieces.size()) {
            result = fail(splitOffClipSentence(), Error::Kind::refused);
            return;
        }
        const auto& playing = timeline.pieces[*piece];
        auto clip = std::find_if(clips.begin(), clips.end(), [&](const PlimClip& c) {
            return c.id == playing.id && c.start <= *raw && *raw <= c.end;
        });
        if (clip == clips.end()) {
            result = fail(splitOffClipSentence(), Error::Kind::refused);
            return;
        }
        if (*raw - clip->start < minimumSpan || clip->end - *raw < minimumSpan) {
            result = fail(splitNearEndSentence(), Error::Kind::refused);
            return;
        }
        PlimClip right{makeUuid(), *raw, clip->end};
        clip->end = *raw;
        result = SplitClips{clip->id, right.id};
        clips.insert(clip + 1, right);
        storeClips(e, std::move(clips));
    });
    return result;
}

void PlimDocument::moveClip(std::string_view id, size_t toIndex)
{
    change([&](PlimEdits& e) {
        auto clips = clipsFor(e);
        auto it = std::find_if(clips.begin(), clips.end(), [&](const PlimClip& c) { return c.id == id; });
        if (it == clips.end())
            return;
        size_t from = static_cast<size_t>(it - clips.begin());
        size_t to = std::min(toIndex, clips.size() - 1);
        if (from == to)
            return;
        PlimClip moving = *it;
        clips.erase(it);
        clips.insert(clips.begin() + static_cast<std::ptrdiff_t>(to), moving);
        storeClips(e, std::move(clips));
    });
}

Status PlimDocument::deleteClip(std::string_view id)
{
    auto current = clipsFor(m_edits);
    if (!findByID(current, id))
        return {};
    if (current.size() <= 1)
        return fail(lastClipSentence());
    change([&](PlimEdits& e) {
        auto clips = clipsFor(e);
        eraseByID(clips, id);
        storeClips(e, std::move(clips));
    });
    return {};
}

} // namespace plim
