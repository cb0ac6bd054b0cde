#include "ui/timeline_view.h"

#include "library/plim_document.h"
#include "plan/edit_plan.h"

#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>

namespace plim {

namespace {

constexpr int sideMargin = 14;
constexpr int laneGap = 6;
constexpr double grabReach = 6;   // pixels either side of an edge that grab it
constexpr double snapReach = 7;   // pixels within which a drag snaps
constexpr double mostPxPerSecond = 600;

struct LaneSpec {
    TimelineView::Lane lane;
    int height;
    const char* name; // written faintly under the lane's items
};
constexpr LaneSpec lanes[] = {
    {TimelineView::Lane::ruler, 24, ""},
    {TimelineView::Lane::clips, 62, ""},
    {TimelineView::Lane::speed, 18, "Speed"},
    {TimelineView::Lane::sound, 40, ""},
    {TimelineView::Lane::zooms, 26, "Zooms"},
    {TimelineView::Lane::blurs, 20, "Blur boxes"},
    {TimelineView::Lane::voiceovers, 20, "Voiceovers"},
    {TimelineView::Lane::captions, 22, "Captions"},
    {TimelineView::Lane::ticks, 14, ""},
};

const QColor background(0x1b, 0x1c, 0x21);
const QColor laneFill(0x24, 0x26, 0x2d);
const QColor laneText(0x9a, 0x9f, 0xab);
const QColor trimYellow(0xf5, 0xc5, 0x42);
const QColor speedOrange(0xee, 0x8b, 0x3a);
const QColor zoomViolet(0x85, 0x74, 0xf7);
const QColor blurTeal(0x2c, 0xb5, 0xa6);
const QColor voiceGreen(0x5c, 0xb8, 0x5c);
const QColor captionSlate(0x6a, 0x76, 0x9c);
const QColor problemRed(0xff, 0x8a, 0x80);
const QColor keyBlue(0x5d, 0x9c, 0xec);
const QColor markRed(0xf0, 0x5a, 0x5a);
const QColor playheadRed(0xff, 0x4d, 0x4f);

QString clockText(double seconds, bool tenths)
{
    seconds = std::max(0.0, seconds);
    const int whole = int(seconds);
    QString text = QString("%1:%2").arg(whole / 60).arg(whole % 60, 2, 10, QChar('0'));
    if (tenths)
        text += QString(".%1").arg(int((seconds - whole) * 10));
    return text;
}

QString rateText(double rate)
{
    if (std::abs(rate - std::round(rate)) < 1e-6)
        return QString("%1×").arg(int(std::round(rate)));
    return QString::number(rate, 'f', 1) + "×";
}

// A rounded block with a label, elided to its width.
void drawBlock(QPainter& p, const QRectF& r, const QColor& colour, const QString& label, bool selected, bool dashed = false)
{
    QPainterPath path;
    path.addRoundedRect(r, 5, 5);
    QColor fill = colour;
    fill.setAlpha(selected ? 235 : 190);
    p.fillPath(path, fill);
    QPen pen(selected ? QColor(Qt::white) : colour.lighter(140), selected ? 2 : 1);
    if (dashed)
        pen.setStyle(Qt::DashLine);
    p.setPen(pen);
    p.drawPath(path);
    if (!label.isEmpty() && r.width() > 18) {
        p.save();
        p.setClipRect(r.adjusted(5, 0, -5, 0));
        p.setPen(Qt::white);
        const QRectF room = r.adjusted(7, 0, -5, 0);
        p.drawText(room, Qt::AlignVCenter | Qt::AlignLeft, p.fontMetrics().elidedText(label, Qt::ElideRight, int(room.width())));
        p.restore();
    }
}

} // namespace

struct TimelineView::Drag {
    enum class What {
        scrub, trimIn, trimOut, clipStart, clipEnd, zoomMove, zoomStart, zoomEnd,
        blurMove, blurStart, blurEnd, pauseStart, pauseEnd, pauseClick, voiceoverMove,
    };
    What what = What::scrub;
    std::string id;
    double pressX = 0;
    double grab = 0;  // movie seconds from the grabbed edge (the start, for a move) to the press
    double start = 0; // the item's span at the press
    double end = 0;
    double playhead = 0; // movie seconds of the playhead at the press, a place to snap to
    bool moved = false;
    bool inGesture = false;
    Selection select;
};

TimelineView::TimelineView(PlimDocument& document, QWidget* parent) : QWidget(parent), m_document(document)
{
    setObjectName("timeline");
    setMouseTracking(true);
    setFocusPolicy(Qt::ClickFocus);
    setAttribute(Qt::WA_OpaquePaintEvent);
    refresh();
}

TimelineView::~TimelineView() = default;

QSize TimelineView::sizeHint() const
{
    int height = 0;
    for (const auto& lane : lanes)
        height += lane.height + laneGap;
    return {900, height + laneGap};
}

QSize TimelineView::minimumSizeHint() const { return {300, sizeHint().height()}; }

void TimelineView::setMoments(PlimMoments moments)
{
    m_moments = std::move(moments);
    update();
}

void TimelineView::setSources(ThumbnailSource* thumbnails, WaveformSource* waveform)
{
    m_thumbnails = thumbnails;
    m_waveform = waveform;
    if (thumbnails)
        connect(thumbnails, &ThumbnailSource::arrived, this, qOverload<>(&QWidget::update));
    if (waveform)
        connect(waveform, &WaveformSource::progressed, this, qOverload<>(&QWidget::update));
    update();
}

void TimelineView::setReadOnly(bool readOnly)
{
    m_readOnly = readOnly;
    update();
}

void TimelineView::refresh()
{
    m_remap = TimeRemap::of(m_document.edits().plan, m_document.duration());
    // A selected item that an undo took away is no longer selected.
    const EditPlan& plan = m_document.edits().plan;
    auto present = [&](const auto& list) {
        return std::any_of(list.begin(), list.end(), [&](const auto& item) { return item.id == m_selection.id; });
    };
    bool kept = true;
    switch (m_selection.kind) {
    case ItemKind::none: break;
    case ItemKind::zoom: kept = present(plan.zooms); break;
    case ItemKind::blur: kept = present(plan.masks); break;
    case ItemKind::voiceover: kept = present(m_document.edits().voiceovers); break;
    case ItemKind::pause:
        kept = std::any_of(plan.skips.begin(), plan.skips.end(), [&](const SkipDecision& s) { return s.identity() == m_selection.id; });
        break;
    }
    if (!kept) {
        m_selection = {};
        emit selectionChanged();
    }
    update();
}

void TimelineView::setPlayhead(double outputTime)
{
    if (!std::isfinite(outputTime) || outputTime == m_playhead)
        return;
    m_playhead = outputTime;
    // A playhead that plays off the visible stretch brings the next page into view.
    const double x = xOf(m_remap.input(outputTime));
    if (!m_drag && !m_fitted && (x < sideMargin || x > width() - sideMargin)) {
        m_viewStart = m_remap.input(outputTime) - 0.1 * (width() - 2 * sideMargin) / m_pxPerSecond;
        clampView();
    }
    update();
}

void TimelineView::select(Selection selection)
{
    if (selection == m_selection)
        return;
    m_selection = std::move(selection);
    emit selectionChanged();
    update();
}

double TimelineView::xOf(double sourceTime) const { return sideMargin + (sourceTime - m_viewStart) * m_pxPerSecond; }

double TimelineView::timeAt(double x) const
{
    return std::clamp(m_viewStart + (x - sideMargin) / m_pxPerSecond, 0.0, m_document.duration());
}

QRect TimelineView::laneRect(Lane lane) const
{
    int y = laneGap;
    for (const auto& spec : lanes) {
        if (spec.lane == lane)
            return {0, y, width(), spec.height};
        y += spec.height + laneGap;
    }
    return {};
}

void TimelineView::fit()
{
    const double span = std::max(0.5, m_document.duration());
    m_pxPerSecond = std::max(1e-3, double(width() - 2 * sideMargin) / span);
    m_viewStart = 0;
    m_fitted = true;
}

void TimelineView::clampView()
{
    const double shown = (width() - 2 * sideMargin) / m_pxPerSecond;
    m_viewStart = std::clamp(m_viewStart, 0.0, std::max(0.0, m_document.duration() - shown));
}

void TimelineView::resizeEvent(QResizeEvent*)
{
    if (m_fitted)
        fit();
    else
        clampView();
}

// --- Painting ---

void TimelineView::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.fillRect(rect(), background);
    p.setRenderHint(QPainter::Antialiasing);
    QFont small = font();
    small.setPointSizeF(std::max(7.0, small.pointSizeF() * 0.85));
    p.setFont(small);
    for (const auto& spec : lanes) {
        if (spec.lane == Lane::ruler)
            continue;
        QRectF lane = laneRect(spec.lane).adjusted(sideMargin - 4, 0, -(sideMargin - 4), 0);
        QPainterPath path;
        path.addRoundedRect(lane, 4, 4);
        p.fillPath(path, laneFill);
        if (*spec.name) {
            p.setPen(QColor(0x55, 0x59, 0x63));
            p.drawText(lane.adjusted(8, 0, -8, 0), Qt::AlignVCenter | Qt::AlignRight, spec.name);
        }
    }
    paintRuler(p);
    paintClips(p);
    paintSpeed(p);
    paintSound(p);
    paintZooms(p);
    paintBlurs(p);
    paintVoiceovers(p);
    paintCaptions(p);
    paintTicks(p);
    paintPlayhead(p);
    if (m_readOnly) {
        p.setPen(laneText);
        p.drawText(rect().adjusted(0, 0, -sideMargin, -2), Qt::AlignRight | Qt::AlignBottom, "Read only");
    }
}

void TimelineView::paintRuler(QPainter& p)
{
    const QRect lane = laneRect(Lane::ruler);
    // The step between labelled ticks: the first that leaves 80 pixels between labels.
    static constexpr double steps[] = {0.5, 1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600};
    double step = steps[std::size(steps) - 1];
    for (double s : steps)
        if (s * m_pxPerSecond >= 80) {
            step = s;
            break;
        }
    const double first = std::floor(timeAt(0) / step) * step;
    p.setPen(laneText);
    for (double t = first; t <= timeAt(width()) + step; t += step) {
        const double x = xOf(t);
        if (x < sideMargin - 1 || x > width() - sideMargin + 1)
            continue;
        p.drawLine(QPointF(x, lane.bottom() - 6), QPointF(x, lane.bottom()));
        for (int minor = 1; minor < 5; ++minor) {
            const double mx = xOf(t + step * minor / 5);
            if (mx < width() - sideMargin)
                p.drawLine(QPointF(mx, lane.bottom() - 3), QPointF(mx, lane.bottom()));
        }
        p.drawText(QRectF(x + 3, lane.top(), 70, lane.height() - 6), Qt::AlignLeft | Qt::AlignVCenter,
            clockText(t, step < 1));
    }
    // Marks: small flags on the ruler.
    for (double mark : m_moments.marks) {
        const double x = xOf(mark);
        if (x < sideMargin || x > width() - sideMargin)
            continue;
        QPainterPath flag;
        flag.moveTo(x, lane.top() + 3);
        flag.lineTo(x + 9, lane.top() + 7);
        flag.lineTo(x, lane.top() + 11);
        flag.closeSubpath();
        p.fillPath(flag, markRed);
        p.setPen(QPen(markRed, 1.5));
        p.drawLine(QPointF(x, lane.top() + 3), QPointF(x, lane.bottom()));
    }
}

void TimelineView::paintClips(QPainter& p)
{
    const QRect lane = laneRect(Lane::clips);
    const double duration = m_document.duration();
    // The removed stretches (trims, cuts, the gaps between clips), hatched.
    {
        QRectF whole(xOf(0), lane.top() + 2, duration * m_pxPerSecond, lane.height() - 4);
        p.save();
        p.setClipRect(QRectF(sideMargin - 4, lane.top(), width() - 2 * (sideMargin - 4), lane.height()));
        p.fillRect(whole, QBrush(QColor(0x3a, 0x3c, 0x44), Qt::BDiagPattern));
        p.restore();
    }
    const auto clips = m_document.clips();
    const double tileHeight = lane.height() - 8;
    double tileWidth = tileHeight * 16 / 10;
    for (size_t i = 0; i < clips.size(); ++i) {
        const PlimClip& clip = clips[i];
        QRectF r(xOf(clip.start), lane.top() + 2, (clip.end - clip.start) * m_pxPerSecond, lane.height() - 4);
        const QRectF visible = r.intersected(QRectF(0, lane.top(), width(), lane.height()));
        if (visible.isEmpty())
            continue;
        QPainterPath path;
        path.addRoundedRect(r, 6, 6);
        p.fillPath(path, QColor(0x34, 0x38, 0x42));
        p.save();
        p.setClipPath(path);
        if (m_thumbnails) {
            const QRectF inner = r.adjusted(2, 2, -2, -2);
            // Tiles on a grid fixed to the timeline, so scrolling does not ask for new ones.
            const double firstTile = std::floor((visible.left() - xOf(0)) / tileWidth) * tileWidth + xOf(0);
            for (double x = firstTile; x < visible.right(); x += tileWidth) {
                const double t = std::clamp(timeAt(x + tileWidth / 2), clip.start, std::max(clip.start, clip.end - 0.05));
                QImage picture = m_thumbnails->at(t, tileWidth / m_pxPerSecond / 2);
                if (picture.isNull() || picture.width() < 2)
                    continue;
                tileWidth = tileHeight * picture.width() / std::max(1, picture.height());
                p.drawImage(QRectF(x, inner.top(), tileWidth, inner.height()), picture);
            }
        }
        p.restore();
        p.setPen(QPen(QColor(0x5a, 0x60, 0x6e), 1));
        p.drawPath(path);
        // The yellow ends that trim.
        for (double edge : {r.left(), r.right()}) {
            QRectF handle(edge - (edge == r.left() ? 0 : 7), r.top(), 7, r.height());
            QPainterPath h;
            h.addRoundedRect(handle, 3, 3);
            p.fillPath(h, m_readOnly ? trimYellow.darker(160) : trimYellow);
            p.setPen(QPen(QColor(0x4a, 0x3a, 0x08), 1.2));
            p.drawLine(QPointF(handle.center().x(), r.center().y() - 7), QPointF(handle.center().x(), r.center().y() + 7));
        }
    }
}

void TimelineView::paintSpeed(QPainter& p)
{
    const QRect lane = laneRect(Lane::speed);
    for (const SkipDecision& skip : m_document.edits().plan.skips) {
        QRectF r(xOf(skip.span.start), lane.top() + 1, (skip.span.end - skip.span.start) * m_pxPerSecond, lane.height() - 2);
        if (r.right() < 0 || r.left() > width())
            continue;
        const bool selected = m_selection.kind == ItemKind::pause && m_selection.id == skip.identity();
        const QString label = skip.keep ? "1×" : rateText(skip.rate);
        drawBlock(p, r, skip.keep ? QColor(0x6b, 0x6f, 0x7a) : speedOrange, label, selected, skip.keep);
    }
}

void TimelineView::paintSound(QPainter& p)
{
    const QRect lane = laneRect(Lane::sound);
    if (!m_waveform)
        return;
    const double middle = lane.center().y();
    const double half = lane.height() / 2.0 - 3;
    const auto removed = m_document.edits().plan.removedSpans(m_document.duration());
    const int from = std::max(sideMargin, int(xOf(0)));
    const int to = std::min(width() - sideMargin, int(xOf(m_document.duration())));
    for (int x = from; x < to; ++x) {
        const double t0 = timeAt(x), t1 = timeAt(x + 1);
        auto peak = m_waveform->peak(t0, t1);
        if (!peak)
            break; // not read this far yet
        const bool cut = std::any_of(removed.begin(), removed.end(), [&](const IdleSpan& s) { return t0 >= s.start && t1 <= s.end; });
        const double h = std::max(0.5, double(*peak) * half);
        p.setPen(cut ? QColor(0x4a, 0x50, 0x5c) : QColor(0x6f, 0xb7, 0xf0));
        p.drawLine(QPointF(x + 0.5, middle - h), QPointF(x + 0.5, middle + h));
    }
}

void TimelineView::paintZooms(QPainter& p)
{
    const QRect lane = laneRect(Lane::zooms);
    for (const ZoomBlock& zoom : m_document.edits().plan.zooms) {
        QRectF r(xOf(zoom.start), lane.top() + 1, (zoom.end - zoom.start) * m_pxPerSecond, lane.height() - 2);
        if (r.right() < 0 || r.left() > width())
            continue;
        const bool automatic = zoom.origin.kind == ZoomBlock::Origin::Kind::clickCluster;
        const bool selected = m_selection.kind == ItemKind::zoom && m_selection.id == zoom.id;
        QString label = QString::number(zoom.scale, 'f', 1) + "×";
        if (automatic)
            label = "Auto · " + label;
        drawBlock(p, r, automatic ? zoomViolet.darker(115) : zoomViolet, label, selected, automatic);
    }
}

void TimelineView::paintBlurs(QPainter& p)
{
    const QRect lane = laneRect(Lane::blurs);
    for (const MaskRegion& mask : m_document.edits().plan.masks) {
        QRectF r(xOf(mask.start), lane.top() + 1, (mask.end - mask.start) * m_pxPerSecond, lane.height() - 2);
        const bool selected = m_selection.kind == ItemKind::blur && m_selection.id == mask.id;
        drawBlock(p, r, blurTeal, mask.style == MaskRegion::Style::pixelate ? "Pixelate" : "Blur", selected);
    }
}

void TimelineView::paintVoiceovers(QPainter& p)
{
    const QRect lane = laneRect(Lane::voiceovers);
    for (const auto& voice : m_document.edits().voiceovers) {
        QRectF r(xOf(voice.start), lane.top() + 1, voice.duration * m_pxPerSecond, lane.height() - 2);
        const bool selected = m_selection.kind == ItemKind::voiceover && m_selection.id == voice.id;
        drawBlock(p, r, voiceGreen, QString::fromStdString(voice.file), selected);
    }
    if (m_recordingTake) {
        const auto [start, length] = *m_recordingTake;
        QRectF r(xOf(start), lane.top() + 1, std::max(2.0, length * m_pxPerSecond), lane.height() - 2);
        drawBlock(p, r, QColor(0xe0, 0x4a, 0x4a), "Recording…", false, true);
    }
}

void TimelineView::paintCaptions(QPainter& p)
{
    const QRect lane = laneRect(Lane::captions);
    if (!m_captionProblem.isEmpty()) {
        const QRectF room = QRectF(lane).adjusted(sideMargin + 4, 0, -(sideMargin + 80), 0);
        p.setPen(problemRed);
        p.drawText(room, Qt::AlignVCenter | Qt::AlignLeft,
            p.fontMetrics().elidedText(m_captionProblem, Qt::ElideRight, int(room.width())));
        return;
    }
    // Lines are drawn faint, with a dashed edge, while the look's captions are off; a line
    // that lies wholly in a removed stretch is never shown, so it is drawn dark.
    const auto& look = m_document.edits().look;
    const bool on = look && look->captions;
    const auto removed = m_document.edits().plan.removedSpans(m_document.duration());
    for (const CaptionLine& line : m_captions) {
        QRectF r(xOf(line.start), lane.top() + 1, std::max(2.0, (line.end - line.start) * m_pxPerSecond), lane.height() - 2);
        if (r.right() < 0 || r.left() > width())
            continue;
        const bool cut = std::any_of(removed.begin(), removed.end(),
            [&](const IdleSpan& s) { return line.start >= s.start && line.end <= s.end; });
        const QColor colour = cut ? captionSlate.darker(180) : on ? captionSlate : captionSlate.darker(130);
        drawBlock(p, r, colour, QString::fromStdString(line.text), false, !on);
    }
}

void TimelineView::setCaptions(std::vector<CaptionLine> lines, QString problem)
{
    m_captions = std::move(lines);
    m_captionProblem = std::move(problem);
    update();
}

void TimelineView::setRecordingTake(std::optional<std::pair<double, double>> startAndLength)
{
    m_recordingTake = startAndLength;
    update();
}

void TimelineView::paintTicks(QPainter& p)
{
    const QRect lane = laneRect(Lane::ticks);
    auto ticks = [&](const std::vector<double>& times, const QColor& colour, double top, double bottom) {
        p.setPen(QPen(colour, 1.2));
        for (double t : times) {
            const double x = xOf(t);
            if (x >= sideMargin && x <= width() - sideMargin)
                p.drawLine(QPointF(x, top), QPointF(x, bottom));
        }
    };
    ticks(m_moments.keys, keyBlue, lane.top() + lane.height() / 2.0, lane.bottom() - 1);
    ticks(m_moments.clicks, QColor(0xf2, 0xf2, 0xf2), lane.top() + 1, lane.top() + lane.height() / 2.0 + 2);
}

void TimelineView::paintPlayhead(QPainter& p)
{
    const double x = xOf(m_remap.input(m_playhead));
    if (x < sideMargin - 1 || x > width() - sideMargin + 1)
        return;
    const QRect ruler = laneRect(Lane::ruler);
    p.setPen(QPen(playheadRed, 1.6));
    p.drawLine(QPointF(x, ruler.top() + 10), QPointF(x, height()));
    QPainterPath head;
    head.addRoundedRect(QRectF(x - 6, ruler.top(), 12, 12), 3, 3);
    head.moveTo(x - 6, ruler.top() + 8);
    head.lineTo(x, ruler.top() + 16);
    head.lineTo(x + 6, ruler.top() + 8);
    p.fillPath(head, playheadRed);
}

// --- Input ---

std::optional<TimelineView::Drag> TimelineView::hit(QPointF point) const
{
    using What = Drag::What;
    Drag drag;
    drag.pressX = point.x();
    const double t = timeAt(point.x());
    auto near = [&](double time) { return std::abs(xOf(time) - point.x()) <= grabReach; };
    auto spanned = [&](double start, double end) {
        return point.x() >= xOf(start) - grabReach && point.x() <= xOf(end) + grabReach;
    };
    auto onSpan = [&](What startEdge, What endEdge, What body, const std::string& id, double start, double end,
                      ItemKind kind) -> std::optional<Drag> {
        if (!spanned(start, end))
            return std::nullopt;
        Drag d = drag;
        // A short block is moved by its middle, and its ends are grabbed only outside it.
        const bool roomy = (end - start) * m_pxPerSecond > 4 * grabReach;
        d.what = near(start) && (roomy || point.x() < xOf(start)) ? startEdge
            : near(end) && (roomy || point.x() > xOf(end))        ? endEdge
                                                                 : body;
        d.id = id;
        d.start = start;
        d.end = end;
        d.grab = t - (d.what == endEdge && endEdge != body ? end : start);
        d.select = {kind, id};
        return d;
    };
    const int y = int(point.y());
    if (laneRect(Lane::clips).contains(0, y) && !m_readOnly) {
        const auto clips = m_document.clips();
        for (size_t i = 0; i < clips.size(); ++i) {
            Drag d = drag;
            d.id = clips[i].id;
            d.start = clips[i].start;
            d.end = clips[i].end;
            if (near(clips[i].start)) {
                d.what = i == 0 ? What::trimIn : What::clipStart;
                d.grab = t - clips[i].start;
                return d;
            }
            if (near(clips[i].end)) {
                d.what = i + 1 == clips.size() ? What::trimOut : What::clipEnd;
                d.grab = t - clips[i].end;
                return d;
            }
        }
    }
    if (laneRect(Lane::zooms).contains(0, y) && !m_readOnly) {
        for (const ZoomBlock& zoom : m_document.edits().plan.zooms)
            if (auto d = onSpan(What::zoomStart, What::zoomEnd, What::zoomMove, zoom.id, zoom.start, zoom.end, ItemKind::zoom))
                return d;
    }
    if (laneRect(Lane::blurs).contains(0, y) && !m_readOnly) {
        for (const MaskRegion& mask : m_document.edits().plan.masks)
            if (auto d = onSpan(What::blurStart, What::blurEnd, What::blurMove, mask.id, mask.start, mask.end, ItemKind::blur))
                return d;
    }
    if (laneRect(Lane::speed).contains(0, y) && !m_readOnly) {
        for (const SkipDecision& skip : m_document.edits().plan.skips)
            if (auto d = onSpan(What::pauseStart, What::pauseEnd, What::pauseClick, skip.identity(), skip.span.start,
                    skip.span.end, ItemKind::pause))
                return d;
    }
    if (laneRect(Lane::voiceovers).contains(0, y) && !m_readOnly) {
        for (const auto& voice : m_document.edits().voiceovers)
            if (auto d = onSpan(What::voiceoverMove, What::voiceoverMove, What::voiceoverMove, voice.id, voice.start,
                    voice.start + voice.duration, ItemKind::voiceover))
                return d;
    }
    drag.what = What::scrub;
    return drag;
}

double TimelineView::snapped(double t, double own) const
{
    double best = t;
    double bestGap = snapReach;
    auto consider = [&](double target) {
        const double gap = std::abs(xOf(target) - xOf(t));
        // An edge does not snap back to where it was picked up.
        if (gap < bestGap && std::abs(target - own) > 1e-9) {
            bestGap = gap;
            best = target;
        }
    };
    // A scrub moves the playhead itself, so it snaps only to the moments.
    if (m_drag && m_drag->what != Drag::What::scrub)
        consider(m_drag->playhead);
    for (const auto* list : {&m_moments.clicks, &m_moments.marks}) {
        auto it = std::lower_bound(list->begin(), list->end(), t);
        if (it != list->end())
            consider(*it);
        if (it != list->begin())
            consider(*std::prev(it));
    }
    return best;
}

void TimelineView::mousePressEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton)
        return;
    auto drag = hit(event->position());
    if (!drag)
        return;
    m_drag = std::make_unique<Drag>(*drag);
    m_drag->playhead = m_remap.input(m_playhead);
    if (m_drag->what == Drag::What::scrub) {
        select({});
        dragTo(event->position().x());
    } else if (m_drag->select.kind != ItemKind::none) {
        select(m_drag->select);
    }
}

void TimelineView::mouseMoveEvent(QMouseEvent* event)
{
    if (!m_drag) {
        setCursorFor(event->position());
        return;
    }
    if (!m_drag->moved && std::abs(event->position().x() - m_drag->pressX) < 3)
        return;
    m_drag->moved = true;
    dragTo(event->position().x());
}

void TimelineView::dragTo(double x)
{
    using What = Drag::What;
    Drag& d = *m_drag;
    const double t = timeAt(x);
    if (d.what == What::scrub) {
        const double out = m_remap.output(snapped(t, -1));
        m_playhead = out;
        update();
        emit scrubbed(out, true);
        return;
    }
    if (d.what == What::pauseClick)
        return;
    if (!d.inGesture) {
        m_document.beginGesture();
        d.inGesture = true;
    }
    const double length = d.end - d.start;
    const double at = t - d.grab; // where the grabbed edge goes
    switch (d.what) {
    case What::trimIn: m_document.setTrimIn(snapped(at, d.start)); break;
    case What::trimOut: m_document.setTrimOut(snapped(at, d.end)); break;
    case What::clipStart: m_document.setClipStart(d.id, snapped(at, d.start)); break;
    case What::clipEnd: m_document.setClipEnd(d.id, snapped(at, d.end)); break;
    case What::zoomMove: m_document.moveZoom(d.id, snapped(at, d.start)); break;
    case What::zoomStart: m_document.setZoomSpan(d.id, snapped(at, d.start), d.end); break;
    case What::zoomEnd: m_document.setZoomSpan(d.id, d.start, snapped(at, d.end)); break;
    case What::blurMove: {
        const double start = std::clamp(snapped(at, d.start), 0.0, std::max(0.0, m_document.duration() - length));
        m_document.setBlurSpan(d.id, start, start + length);
        break;
    }
    case What::blurStart: m_document.setBlurSpan(d.id, snapped(at, d.start), d.end); break;
    case What::blurEnd: m_document.setBlurSpan(d.id, d.start, snapped(at, d.end)); break;
    case What::pauseStart:
    case What::pauseEnd: {
        const double start = d.what == What::pauseStart ? snapped(at, d.start) : d.start;
        const double end = d.what == What::pauseEnd ? snapped(at, d.end) : d.end;
        m_document.setPauseSpan(d.id, start, end);
        // A pause is known by its start, so a moved start renames it.
        const auto& skips = m_document.edits().plan.skips;
        auto nearest = std::min_element(skips.begin(), skips.end(), [&](const SkipDecision& a, const SkipDecision& b) {
            return std::abs(a.span.start - start) + std::abs(a.span.end - end)
                < std::abs(b.span.start - start) + std::abs(b.span.end - end);
        });
        if (nearest != skips.end() && nearest->identity() != d.id) {
            d.id = nearest->identity();
            m_selection = {ItemKind::pause, d.id};
            emit selectionChanged();
        }
        break;
    }
    case What::voiceoverMove: m_document.moveVoiceover(d.id, snapped(at, d.start)); break;
    case What::scrub:
    case What::pauseClick: break;
    }
}

void TimelineView::mouseReleaseEvent(QMouseEvent* event)
{
    if (!m_drag || event->button() != Qt::LeftButton)
        return;
    auto drag = std::move(m_drag);
    if (drag->inGesture)
        m_document.endGesture();
    const QPoint below = mapToGlobal(QPoint(int(event->position().x()), laneRect(Lane::zooms).bottom() + 4));
    if (drag->what == Drag::What::scrub)
        emit scrubbed(m_playhead, false);
    else if (!drag->moved && drag->what == Drag::What::zoomMove)
        emit zoomClicked(QString::fromStdString(drag->id), below);
    else if (!drag->moved && drag->what == Drag::What::pauseClick)
        emit pauseClicked(QString::fromStdString(drag->id), below);
    update();
}

void TimelineView::setCursorFor(QPointF point)
{
    using What = Drag::What;
    auto drag = hit(point);
    Qt::CursorShape shape = Qt::ArrowCursor;
    if (drag) {
        switch (drag->what) {
        case What::trimIn:
        case What::trimOut:
        case What::clipStart:
        case What::clipEnd:
        case What::zoomStart:
        case What::zoomEnd:
        case What::blurStart:
        case What::blurEnd:
        case What::pauseStart:
        case What::pauseEnd: shape = Qt::SizeHorCursor; break;
        case What::zoomMove:
        case What::blurMove:
        case What::voiceoverMove: shape = Qt::OpenHandCursor; break;
        case What::pauseClick: shape = Qt::PointingHandCursor; break;
        case What::scrub: shape = Qt::IBeamCursor; break;
        }
    }
    setCursor(shape);
    // A caption line's whole text, which its block may not have room for.
    QString tip;
    if (laneRect(Lane::captions).contains(point.toPoint())) {
        tip = m_captionProblem;
        const double t = timeAt(point.x());
        for (const CaptionLine& line : m_captions)
            if (line.start <= t && t <= line.end)
                tip = QString::fromStdString(line.text);
    }
    setToolTip(tip);
}

void TimelineView::wheelEvent(QWheelEvent* event)
{
    const double steps = event->angleDelta().y() / 120.0;
    if (event->modifiers() & Qt::ControlModifier) {
        // Zoom about the time under the pointer.
        const double x = event->position().x();
        const double anchor = m_viewStart + (x - sideMargin) / m_pxPerSecond;
        const double fitted = double(width() - 2 * sideMargin) / std::max(0.5, m_document.duration());
        m_pxPerSecond = std::clamp(m_pxPerSecond * std::pow(1.25, steps), fitted, std::max(fitted, mostPxPerSecond));
        m_fitted = m_pxPerSecond <= fitted * 1.0001;
        m_viewStart = anchor - (x - sideMargin) / m_pxPerSecond;
        clampView();
    } else {
        const double delta = event->angleDelta().x() != 0 ? event->angleDelta().x() / 120.0 : steps;
        m_viewStart -= delta * 60 / m_pxPerSecond;
        clampView();
    }
    update();
    event->accept();
}

void TimelineView::keyPressEvent(QKeyEvent* event)
{
    if ((event->key() == Qt::Key_Delete || event->key() == Qt::Key_Backspace) && !m_readOnly) {
        const std::string id = m_selection.id;
        switch (m_selection.kind) {
        case ItemKind::zoom: m_document.removeZoom(id); break;
        case ItemKind::blur: m_document.removeBlur(id); break;
        case ItemKind::voiceover: m_document.removeVoiceover(id); break;
        case ItemKind::pause:
        case ItemKind::none: QWidget::keyPressEvent(event); return;
        }
        select({});
        return;
    }
    QWidget::keyPressEvent(event);
}

} // namespace plim
