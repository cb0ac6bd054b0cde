#include "base/text.h"
#include "library/plim_document.h"

#include "base/dates.h"
#include "base/files.h"
#include "base/log.h"
#include "capture/capture.h"
#include "plan/plan.h"

#include <algorithm>
#include <cmath>

namespace plim {

namespace {

bool finite(double v) { return std::isfinite(v); }

template<typename T>
T* findByID(std::vector<T>& items, std::string_view id)
{
    auto it = std::find_if(items.begin(), items.end(), [&](const T& item) { return item.id == id; });
    return it == items.end() ? nullptr : &*it;
}

template<typename T>
void eraseByID(std::vector<T>& items, std::string_view id)
{
    std::erase_if(items, [&](const T& item) { return item.id == id; });
}

// [start, end] put in order, inside [0, duration] and at least `minimum` long where the
// duration allows.
std::pair<double, double> clampedSpan(double start, double end, double duration, double minimum)
{
    double lo = std::clamp(std::min(start, end), 0.0, duration);
    double hi = std::clamp(std::max(start, end), 0.0, duration);
    if (hi - lo < minimum) {
        hi = std::min(duration, lo + minimum);
        lo = std::max(0.0, hi - minimum);
    }
    return {lo, hi};
}

double wholeMilliseconds(double seconds) { return static_cast<double>(static_cast<int64_t>(seconds * 1000.0)) / 1000.0; }

} // namespace

std::string refusedShapeSentence()
{
    return "The iPhone frame is for plims recorded from an iPhone. This plim came from your computer, so it keeps "
           "its shape.";
}
std::string lastClipSentence() { return "A plim keeps at least one clip. Trim it with the yellow ends instead."; }
std::string splitOffClipSentence() { return "Move the playhead onto a clip to cut it there."; }
std::string splitNearEndSentence() { return "Move the playhead away from the clip's ends to cut there."; }

PlimDocument::PlimDocument(fs::path movieURL, double duration, bool isPhonePlim, PlimEdits edits)
    : m_movieURL(std::move(movieURL))
    , m_duration(finite(duration) && duration > 0 ? duration : 0)
    , m_isPhonePlim(isPhonePlim)
    , m_edits(std::move(edits))
{
}

PlimDocument::FirstEdit PlimDocument::automaticEdit(const fs::path& movieURL, double duration,
    std::optional<PlimLook> look, std::vector<IdleSpan> speech)
{
    return [movieURL, duration, look = std::move(look), speech = std::move(speech)] {
        PlimEdits edits;
        edits.look = look;
        auto cursor = CursorTrack::read(movieURL);
        if (!cursor)
            return edits;
        for (const auto& notice : cursor->notices)
            logLine(LogArea::main, notice);
        auto keys = KeystrokeTrack::read(movieURL);
        if (keys)
            for (const auto& notice : keys->notices)
                logLine(LogArea::main, notice);
        auto performance = AutoEdit::performance(cursor->value, keys ? &keys->value : nullptr, speech, duration);
        edits.plan = AutoEdit::plan(AutoEdit::make(performance));
        return edits;
    };
}

PlimDocument::OpenResult PlimDocument::open(const fs::path& movieURL, double duration, bool isPhonePlim,
    FirstEdit firstEdit)
{
    auto read = PlimEdits::read(movieURL);
    OpenResult result;
    PlimEdits edits;
    if (read && read->value) {
        edits = std::move(*read->value);
        result.editsFromFile = true;
    } else {
        if (firstEdit)
            edits = firstEdit();
        if (!edits.plim3Stage)
            edits.plim3Stage = PlimEdits::readPlim3Stage(movieURL);
    }
    result.document = std::make_unique<PlimDocument>(movieURL, duration, isPhonePlim, std::move(edits));
    if (!read) {
        result.document->m_protectsFile = true;
        result.notice = std::move(read.error());
    }
    return result;
}

void PlimDocument::notify()
{
    if (m_observer)
        m_observer();
}

bool PlimDocument::change(const std::function<void(PlimEdits&)>& operation)
{
    PlimEdits copy = m_edits;
    operation(copy);
    if (copy == m_edits)
        return false;
    if (!m_gestureStart || m_edits == *m_gestureStart) {
        m_undoStack.push_back(m_edits);
        while (m_undoStack.size() > undoLimit)
            m_undoStack.pop_front();
        m_redoStack.clear();
    }
    m_edits = std::move(copy);
    m_isDirty = true;
    m_protectsFile = false;
    notify();
    return true;
}

// Moves the current edits onto `to` and takes the last entry of `from` as current.
void PlimDocument::stepHistory(std::deque<PlimEdits>& from, std::deque<PlimEdits>& to)
{
    if (from.empty())
        return;
    to.push_back(std::move(m_edits));
    m_edits = std::move(from.back());
    from.pop_back();
    m_isDirty = true;
    m_protectsFile = false;
    notify();
}

void PlimDocument::undo() { stepHistory(m_undoStack, m_redoStack); }
void PlimDocument::redo() { stepHistory(m_redoStack, m_undoStack); }

void PlimDocument::beginGesture()
{
    if (!m_gestureStart)
        m_gestureStart = m_edits;
}

void PlimDocument::endGesture() { m_gestureStart.reset(); }

namespace {

constexpr std::string_view saveFailureStart = "Plim could not save the edits for ";
constexpr std::string_view saveFailureEnd = " Your changes are still open. Free some disk space or check that the "
                                            "plims folder can be written to, then edit again to save them.";

} // namespace

Status PlimDocument::save()
{
    if (m_protectsFile)
        return {};
    auto written = m_edits.write(m_movieURL, plimNameAndVersion());
    if (!written)
        return fail(std::string(saveFailureStart) + baseName(m_movieURL) + ". " + written.error().sentence +
                std::string(saveFailureEnd),
            written.error().kind);
    if (m_isDirty) {
        m_isDirty = false;
        notify();
    }
    return {};
}

std::string PlimDocument::shortSaveSentence(const Error& saveFailure) const
{
    std::string_view reason = saveFailure.sentence;
    const std::string start = std::string(saveFailureStart) + baseName(m_movieURL) + ". ";
    if (reason.starts_with(start) && reason.ends_with(saveFailureEnd)) {
        reason.remove_prefix(start.size());
        reason.remove_suffix(saveFailureEnd.size());
    }
    return "Plim could not save this plim's edits: " + std::string(reason);
}

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

void PlimDocument::setClipStart(std::string_view id, double to)
{
    if (!finite(to))
        return;
    change([&](PlimEdits& e) {
        auto clips = clipsFor(e);
        PlimClip* clip = findByID(clips, id);
        if (!clip)
            return;
        clip->start = std::max(0.0, std::min(to, clip->end - minimumSpan));
        storeClips(e, std::move(clips));
    });
}

void PlimDocument::setClipEnd(std::string_view id, double to)
{
    if (!finite(to) || m_duration <= 0)
        return;
    change([&](PlimEdits& e) {
        auto clips = clipsFor(e);
        PlimClip* clip = findByID(clips, id);
        if (!clip)
            return;
        clip->end = std::min(m_duration, std::max(to, clip->start + minimumSpan));
        storeClips(e, std::move(clips));
    });
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

// --- Zooms ---

std::optional<std::string> PlimDocument::addZoom(double at, double centerX, double centerY)
{
    if (!finite(at) || !finite(centerX) || !finite(centerY) || m_duration <= 0)
        return std::nullopt;
    ZoomBlock block;
    block.id = makeUuid();
    block.start = std::max(0.0, std::min(at, m_duration - newZoomLength));
    block.end = std::min(m_duration, block.start + newZoomLength);
    block.centerX = std::clamp(centerX, 0.0, 1.0);
    block.centerY = std::clamp(centerY, 0.0, 1.0);
    block.scale = newZoomLevel;
    block.origin = ZoomBlock::Origin::mark();
    change([&](PlimEdits& e) { e.plan.zooms.push_back(block); });
    return block.id;
}

void PlimDocument::moveZoom(std::string_view id, double toStart, const std::function<std::optional<Point>(double)>& followAt)
{
    if (!finite(toStart))
        return;
    change([&](PlimEdits& e) {
        ZoomBlock* block = findByID(e.plan.zooms, id);
        if (!block)
            return;
        double length = std::max(0.0, block->end - block->start);
        double start = std::max(0.0, std::min(toStart, m_duration - length));
        block->start = start;
        block->end = start + length;
        if (followAt && !e.isAimed(id)) {
            auto point = followAt(start + length / 2);
            if (point && finite(point->x) && finite(point->y)) {
                block->centerX = std::clamp(point->x, 0.0, 1.0);
                block->centerY = std::clamp(point->y, 0.0, 1.0);
            }
        }
    });
}

template<typename Item, typename Edit>
void PlimDocument::changePlanItem(std::vector<Item> EditPlan::*list, std::string_view id, Edit&& edit)
{
    change([&](PlimEdits& e) {
        if (Item* item = findByID(e.plan.*list, id))
            edit(*item, e);
    });
}

template<typename Item>
void PlimDocument::setItemSpan(std::vector<Item> EditPlan::*list, std::string_view id, double start, double end,
    double minimum)
{
    if (!finite(start) || !finite(end))
        return;
    changePlanItem(list, id, [&](Item& item, PlimEdits&) {
        auto [lo, hi] = clampedSpan(start, end, m_duration, minimum);
        item.start = lo;
        item.end = hi;
    });
}

void PlimDocument::setZoomSpan(std::string_view id, double start, double end)
{
    setItemSpan(&EditPlan::zooms, id, start, end, minimumSpan);
}

void PlimDocument::aimZoom(std::string_view id, double x, double y)
{
    if (!finite(x) || !finite(y))
        return;
    changePlanItem(&EditPlan::zooms, id, [&](ZoomBlock& block, PlimEdits& e) {
        block.centerX = std::clamp(x, 0.0, 1.0);
        block.centerY = std::clamp(y, 0.0, 1.0);
        if (std::find(e.aimedZooms.begin(), e.aimedZooms.end(), id) == e.aimedZooms.end())
            e.aimedZooms.emplace_back(id);
    });
}

void PlimDocument::setZoomLevel(std::string_view id, double level)
{
    if (!finite(level))
        return;
    changePlanItem(&EditPlan::zooms, id, [&](ZoomBlock& block, PlimEdits&) {
        block.scale = std::clamp(level, minimumZoomLevel, maximumZoomLevel);
    });
}

void PlimDocument::removeZoom(std::string_view id)
{
    change([&](PlimEdits& e) {
        eraseByID(e.plan.zooms, id);
        std::erase(e.aimedZooms, std::string(id));
    });
}

// --- Pauses (skips) ---

void PlimDocument::skip(const SkipDecision& decision)
{
    if (!finite(decision.span.start) || !finite(decision.span.end) || !finite(decision.rate) || decision.rate <= 0)
        return;
    SkipDecision clean = decision;
    clean.span.start = std::clamp(std::min(decision.span.start, decision.span.end), 0.0, m_duration);
    clean.span.end = std::clamp(std::max(decision.span.start, decision.span.end), 0.0, m_duration);
    if (clean.span.end <= clean.span.start)
        return;
    change([&](PlimEdits& e) {
        auto same = std::find_if(e.plan.skips.begin(), e.plan.skips.end(),
            [&](const SkipDecision& s) { return s.identity() == clean.identity(); });
        if (same != e.plan.skips.end())
            *same = clean;
        else
            e.plan.skips.push_back(clean);
    });
}

void PlimDocument::setPauseSpeed(std::string_view id, double speed)
{
    if (!finite(speed))
        return;
    change([&](PlimEdits& e) {
        for (auto& s : e.plan.skips)
            if (s.identity() == id) {
                s.rate = std::clamp(speed, minimumPauseSpeed, maximumPauseSpeed);
                return;
            }
    });
}

void PlimDocument::setPauseSpan(std::string_view id, double start, double end)
{
    if (!finite(start) || !finite(end))
        return;
    change([&](PlimEdits& e) {
        for (auto& s : e.plan.skips)
            if (s.identity() == id) {
                auto [lo, hi] = clampedSpan(start, end, m_duration, minimumBlurSpan);
                s.span.start = wholeMilliseconds(lo);
                s.span.end = wholeMilliseconds(hi);
                return;
            }
    });
}

// --- Blur boxes ---

std::optional<std::string> PlimDocument::addBlur(double at)
{
    if (!finite(at) || m_duration <= 0)
        return std::nullopt;
    MaskRegion mask;
    mask.id = makeUuid();
    mask.w = 0.3;
    mask.h = 0.3;
    mask.x = 0.35;
    mask.y = 0.35;
    mask.start = std::max(0.0, std::min(at, m_duration - newBlurLength));
    mask.end = std::min(m_duration, mask.start + newBlurLength);
    mask.style = MaskRegion::Style::blur;
    change([&](PlimEdits& e) { e.plan.masks.push_back(mask); });
    return mask.id;
}

void PlimDocument::moveBlur(std::string_view id, double x, double y)
{
    if (!finite(x) || !finite(y))
        return;
    // The centre stays inside the frame; the box may hang half out.
    changePlanItem(&EditPlan::masks, id, [&](MaskRegion& mask, PlimEdits&) {
        mask.x = std::clamp(x, -mask.w / 2, 1 - mask.w / 2);
        mask.y = std::clamp(y, -mask.h / 2, 1 - mask.h / 2);
    });
}

void PlimDocument::resizeBlur(std::string_view id, double w, double h)
{
    if (!finite(w) || !finite(h))
        return;
    // Never past the right or bottom edge, never smaller than 0.02 of the frame.
    changePlanItem(&EditPlan::masks, id, [&](MaskRegion& mask, PlimEdits&) {
        mask.w = std::clamp(w, 0.02, std::max(1 - mask.x, 0.02));
        mask.h = std::clamp(h, 0.02, std::max(1 - mask.y, 0.02));
    });
}

void PlimDocument::setBlurSpan(std::string_view id, double start, double end)
{
    setItemSpan(&EditPlan::masks, id, start, end, minimumBlurSpan);
}

void PlimDocument::removeBlur(std::string_view id)
{
    change([&](PlimEdits& e) { eraseByID(e.plan.masks, id); });
}

// --- Voiceovers ---

std::optional<std::string> PlimDocument::addVoiceover(PlimEdits::Voiceover voiceover)
{
    if (!finite(voiceover.start) || !finite(voiceover.duration) || voiceover.duration < 0 || !finite(voiceover.micUnder))
        return std::nullopt;
    if (voiceover.id.empty() || !isUuid(voiceover.id) || findByID(m_edits.voiceovers, voiceover.id))
        voiceover.id = makeUuid();
    voiceover.start = std::clamp(voiceover.start, 0.0, m_duration);
    voiceover.micUnder = std::clamp(voiceover.micUnder, 0.0, 1.0);
    change([&](PlimEdits& e) { e.voiceovers.push_back(voiceover); });
    return voiceover.id;
}

void PlimDocument::moveVoiceover(std::string_view id, double toStart)
{
    if (!finite(toStart))
        return;
    change([&](PlimEdits& e) {
        if (auto* voice = findByID(e.voiceovers, id))
            voice->start = std::max(0.0, std::min(toStart, m_duration - voice->duration));
    });
}

void PlimDocument::removeVoiceover(std::string_view id)
{
    change([&](PlimEdits& e) { eraseByID(e.voiceovers, id); });
}

// --- Look ---

Status PlimDocument::setShape(PlimLook::Shape shape)
{
    if (shape == PlimLook::Shape::iPhone && !m_isPhonePlim)
        return fail(refusedShapeSentence());
    setLook([&](PlimLook& look) { look.shape = shape; });
    return {};
}

void PlimDocument::setLook(const std::function<void(PlimLook&)>& change)
{
    if (!change)
        return;
    this->change([&](PlimEdits& e) {
        PlimLook look = e.look.value_or(PlimLook{});
        PlimLook::Shape before = look.shape;
        change(look);
        if (look.shape == PlimLook::Shape::iPhone && !m_isPhonePlim)
            look.shape = before;
        if (!e.look && look == PlimLook{})
            return;
        e.look = look;
    });
}

void PlimDocument::applyLook(const PlimLook& look)
{
    change([&](PlimEdits& e) {
        PlimLook worn = look;
        if (worn.shape == PlimLook::Shape::iPhone && !m_isPhonePlim)
            worn.shape = e.look ? e.look->shape : PlimLook::Shape::landscape;
        e.look = worn;
    });
}

void PlimDocument::setCaptionsFile(std::optional<std::string> name)
{
    change([&](PlimEdits& e) {
        if (name && !trimmed(*name).empty())
            e.captionsFile = *name;
        else
            e.captionsFile.reset();
    });
}

} // namespace plim
