#include "library/plim_document.h"
#include "library/plim_document_ops.h"

#include "base/dates.h"
#include "base/text.h"
#include "base/files.h"
#include "base/log.h"
#include "capture/capture.h"
#include "plan/plan.h"

#include <algorithm>
#include <cmath>

namespace plim {

using namespace document_detail;

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
        if (look && look->zoomLevel)
            for (ZoomBlock& zoom : edits.plan.zooms)
                zoom.scale = *look->zoomLevel;
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
        PlimLook look = e.look.value_or(m_lookSeed);
        PlimLook::Shape before = look.shape;
        change(look);
        if (look.shape == PlimLook::Shape::iPhone && !m_isPhonePlim)
            look.shape = before;
        if (!e.look && look == m_lookSeed)
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
