// PlimDocument: zooms, pauses, blur boxes and voiceovers.
#include "library/plim_document.h"
#include "library/plim_document_ops.h"

#include "base/dates.h"
#include "plan/plan.h"

#include <algorithm>
#include <cmath>

namespace plim {

using namespace document_detail;

namespace {

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
    block.scale = look().zoomLevel.value_or(newZoomLevel);
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

void PlimDocument::setZoomStyle(std::string_view id, std::optional<std::string> style)
{
    if (style && !zoomStyleFromText(*style))
        return;
    changePlanItem(&EditPlan::zooms, id, [&](ZoomBlock& block, PlimEdits&) { block.style = style; });
}

void PlimDocument::setCameraShape(std::string_view shape)
{
    if (shape != "circle" && shape != "card")
        return;
    change([&](PlimEdits& e) { e.plan.cameraShape = std::string(shape); });
}

void PlimDocument::setCameraScale(double scale)
{
    if (!finite(scale))
        return;
    change([&](PlimEdits& e) {
        e.plan.cameraScale = std::clamp(scale, plan_limits::minCameraScale, plan_limits::maxCameraScale);
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

} // namespace plim
