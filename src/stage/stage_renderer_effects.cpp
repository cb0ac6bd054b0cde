// Effect layers: click rings and pulses, the blur of a moving zoom, and transitions.

#include "stage/stage_renderer_cairo.h"

#include "stage/recorded_moment_source.h"

#include <algorithm>
#include <cmath>

namespace plim {

ClickAnim clickAnim(ClickStyle style, double age)
{
    const double life = RecordedMomentSource::clickLifeFor(style);
    if (style == ClickStyle::none || !(life > 0) || !std::isfinite(age) || age < 0 || age >= life)
        return {};
    const double t = age / life;
    const double easeOut = 1 - std::pow(1 - t, 3);
    switch (style) {
    case ClickStyle::none: return {};
    case ClickStyle::ring: return {easeOut, std::pow(1 - t, 1.5)};
    case ClickStyle::pulse: return {easeOut, 1 - t};
    case ClickStyle::spotlight: return {0.6 + 0.4 * easeOut, t < 0.2 ? t / 0.2 : 1 - (t - 0.2) / 0.8};
    case ClickStyle::highlight: return {std::min(1.0, t / 0.15), t < 0.6 ? 1.0 : 1 - (t - 0.6) / 0.4};
    }
    return {};
}

namespace stage_draw {

void CairoStageRenderer::drawZoomBlur(Image& out, const StageMoment& moment)
{
    const double strength = std::min(moment.zoomVelocity * style::zoomBlurPerVelocity, style::zoomBlurMax);
    if (strength > 0.004)
        m_c->zoomBlur(out, pictureOf(moment.zoom.centerX, moment.zoom.centerY), strength);
}

void CairoStageRenderer::drawClicks(Image& out, const StageMoment& moment)
{
    const Color tint = style::clickTint(m_spec.clickTint);
    const double zoomed = std::sqrt(m_zoom) * m_u;
    for (const StageMoment::Click& click : moment.clicks) {
        const ClickAnim anim = clickAnim(m_spec.clickStyle, click.age);
        if (anim.alpha <= 0)
            continue;
        const Point at = pictureOf(click.x, click.y);
        if (!inView(at))
            continue;
        switch (m_spec.clickStyle) {
        case ClickStyle::none: break;
        case ClickStyle::ring: {
            const double r = style::clickRadius * zoomed * (0.3 + 0.7 * anim.grow);
            const double w = style::clickRingWidth * zoomed * (1 - 0.45 * anim.grow);
            m_c->strokePath(out, Path().addCircle(at, r), tint.withAlpha(anim.alpha), w);
            break;
        }
        case ClickStyle::pulse: {
            const double r = style::clickRadius * zoomed * anim.grow;
            m_c->fill(out, tint.withAlpha(0.32 * anim.alpha), RoundedRect{{at.x - r, at.y - r, 2 * r, 2 * r}, r});
            const double core = 0.28 * style::clickRadius * zoomed;
            m_c->fill(out, tint.withAlpha(0.55 * anim.alpha),
                RoundedRect{{at.x - core, at.y - core, 2 * core, 2 * core}, core});
            break;
        }
        case ClickStyle::spotlight: {
            const double r = style::clickSpotlightRadius * zoomed * anim.grow;
            m_c->fillGradient(out,
                Gradient::radial(at, 0, r, {{0, tint.withAlpha(0.55 * anim.alpha)}, {0.45, tint.withAlpha(0.28 * anim.alpha)}, {1, tint.withAlpha(0)}}),
                RoundedRect{{at.x - r, at.y - r, 2 * r, 2 * r}, r});
            break;
        }
        case ClickStyle::highlight: {
            const double r = style::clickHighlightRadius * zoomed * (0.75 + 0.25 * anim.grow);
            m_c->fill(out, tint.withAlpha(0.38 * anim.alpha), RoundedRect{{at.x - r, at.y - r, 2 * r, 2 * r}, r});
            break;
        }
        }
    }
}

void CairoStageRenderer::applyTransition(Image& out, const EditPlan::TransitionPhase& transition)
{
    const double phase = std::clamp(transition.phase, 0.0, 1.0);
    if (phase <= 0)
        return;
    switch (transition.kind) {
    case TransitionSpec::Kind::dipToBlack: m_c->fill(out, {0, 0, 0, phase}); break;
    case TransitionSpec::Kind::dipToBackdrop:
        m_c->draw(out, m_backdrop, Affine::identity(), std::nullopt, phase, Filter::nearest);
        break;
    case TransitionSpec::Kind::blur: {
        const double sigma = phase * style::transitionBlur * m_canvas.width;
        m_c->blur(out, {0, 0, m_canvas.width, m_canvas.height}, sigma);
        break;
    }
    case TransitionSpec::Kind::punch: {
        const double s = 1 + style::punchScale * phase;
        const Point c{m_canvas.width / 2, m_canvas.height / 2};
        const Image before = out.clone();
        m_c->draw(out, before,
            Affine::translation(-c.x, -c.y).then(Affine::scale(s, s)).then(Affine::translation(c.x, c.y)));
        m_c->fill(out, {1, 1, 1, style::punchFlash * phase});
        break;
    }
    }
}

} // namespace stage_draw

} // namespace plim
