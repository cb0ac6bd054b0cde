// Text for the CPU compositor: Pango lays a line out and cairo draws it into a layer.

#include "stage/compositor_cairo.h"

#include <algorithm>

namespace plim::cairo_backend {

namespace {

// The control key's ⌃, which fonts draw as a small raised caret, half as large again and
// lowered onto the middle of the letters beside it, as a keycap shows it.
void enlargeCarets(PangoLayout* layout, std::string_view text, double size)
{
    static constexpr std::string_view caret = "\u2303";
    PangoAttrList* attributes = nullptr;
    for (auto at = text.find(caret); at != std::string_view::npos; at = text.find(caret, at + caret.size())) {
        if (!attributes)
            attributes = pango_attr_list_new();
        for (PangoAttribute* a : {pango_attr_scale_new(1.45), pango_attr_rise_new(static_cast<int>(-0.2 * size * PANGO_SCALE))}) {
            a->start_index = static_cast<guint>(at);
            a->end_index = static_cast<guint>(at + caret.size());
            pango_attr_list_insert(attributes, a);
        }
    }
    if (attributes) {
        pango_layout_set_attributes(layout, attributes);
        pango_attr_list_unref(attributes);
    }
}

} // namespace

TextLayer CairoCompositor::text(std::string_view text, const TextStyle& style)
{
    TextLayer layer;
    if (text.empty())
        return layer;
    auto probe = SurfacePtr(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 1, 1), cairo_surface_destroy);
    ContextPtr pcr(cairo_create(probe.get()), cairo_destroy);
    pango_cairo_update_context(pcr.get(), m_text);
    PangoLayout* layout = pango_layout_new(m_text);
    PangoFontDescription* font = pango_font_description_new();
    pango_font_description_set_family(font, style.family.c_str());
    pango_font_description_set_weight(font, static_cast<PangoWeight>(style.weight));
    pango_font_description_set_absolute_size(font, std::max(1.0, style.size) * PANGO_SCALE);
    pango_layout_set_font_description(layout, font);
    pango_font_description_free(font);
    pango_layout_set_text(layout, text.data(), static_cast<int>(text.size()));
    enlargeCarets(layout, text, std::max(1.0, style.size));
    if (style.maxWidth > 0) {
        pango_layout_set_width(layout, static_cast<int>(style.maxWidth * PANGO_SCALE));
        pango_layout_set_wrap(layout, PANGO_WRAP_WORD_CHAR);
        pango_layout_set_alignment(layout, PANGO_ALIGN_CENTER);
    }
    PangoRectangle ink, logical;
    pango_layout_get_pixel_extents(layout, &ink, &logical);
    if (style.maxWidth > 0) {
        // Centred lines sit inside the wrap width; crop to the lines themselves.
        const int left = std::min(ink.x, logical.x);
        logical.width = std::max(ink.x + ink.width, logical.x + logical.width) - left;
        logical.x = left;
    }
    const int x0 = std::min(ink.x, logical.x) - 1, y0 = std::min(ink.y, logical.y) - 1;
    const int x1 = std::max(ink.x + ink.width, logical.x + logical.width) + 1;
    const int y1 = std::max(ink.y + ink.height, logical.y + logical.height) + 1;
    layer.image = Image::allocate(x1 - x0, y1 - y0);
    if (!layer.image.isEmpty()) {
        auto surface = wrap(layer.image);
        ContextPtr cr(cairo_create(surface.get()), cairo_destroy);
        cairo_translate(cr.get(), -x0, -y0);
        setColor(cr.get(), style.color);
        pango_cairo_update_layout(cr.get(), layout);
        pango_cairo_show_layout(cr.get(), layout);
        cairo_surface_flush(surface.get());
    }
    layer.baseline = pango_layout_get_baseline(layout) / double(PANGO_SCALE) - y0;
    layer.logical = {double(logical.width), double(logical.height)};
    g_object_unref(layout);
    return layer;
}

} // namespace plim::cairo_backend
