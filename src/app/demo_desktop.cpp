#include "app/demo_desktop.h"

#include <cairo.h>
#include <pango/pangocairo.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <vector>

namespace plim::demo {

namespace {

struct Box {
    double x, y, w, h;
};

// Where things sit on the 1280 × 800 point display.
constexpr Box topBar{0, 0, 1280, 28};
constexpr Box editor{70, 72, 620, 470};
constexpr Box editorText{100, 196, 560, 320};
constexpr Box saveButton{596, 118, 76, 30};
constexpr Box files{760, 120, 440, 560};
constexpr Box listView{760, 196, 440, 484};
// Top right, below the bar as the desktop shows notifications: the bottom centre is where
// a staged movie shows its keycaps.
constexpr Box toast{950, 40, 300, 52};
constexpr double rowHeight = 34;
constexpr int rowCount = 48;
constexpr double lineHeight = 26;

const std::vector<std::string> noteLines = {
    "Launch checklist",
    "• Record the walkthrough at full size",
    "• Trim the silent start and end",
    "• Check the zooms land on every click",
    "",
};

struct Rgb {
    double r, g, b;
};

void roundedRect(cairo_t* cr, Box b, double radius)
{
    double r = std::min({radius, b.w / 2, b.h / 2});
    cairo_new_sub_path(cr);
    cairo_arc(cr, b.x + b.w - r, b.y + r, r, -M_PI / 2, 0);
    cairo_arc(cr, b.x + b.w - r, b.y + b.h - r, r, 0, M_PI / 2);
    cairo_arc(cr, b.x + r, b.y + b.h - r, r, M_PI / 2, M_PI);
    cairo_arc(cr, b.x + r, b.y + r, r, M_PI, 3 * M_PI / 2);
    cairo_close_path(cr);
}

void fill(cairo_t* cr, Rgb c, double alpha = 1)
{
    cairo_set_source_rgba(cr, c.r, c.g, c.b, alpha);
    cairo_fill(cr);
}

double ease(double u)
{
    u = std::clamp(u, 0.0, 1.0);
    return u * u * (3 - 2 * u);
}

} // namespace

struct Desktop::State {
    int typed = 0;
    bool caret = false;
    int scrollPixels = 0;
    int selectedRow = -1;
    bool savePressed = false;
    int toastLevel = 0; // 0 ... 32
    bool operator==(const State&) const = default;
};

struct Desktop::Painter {
    cairo_surface_t* surface = nullptr;
    cairo_t* cr = nullptr;
    cairo_surface_t* wallpaper = nullptr;
    double scale = 1;
    std::map<std::string, PangoLayout*> layouts;

    Painter(Image& image)
    {
        surface = cairo_image_surface_create_for_data(image.pixels.get(), CAIRO_FORMAT_ARGB32, image.width,
            image.height, static_cast<int>(image.stride));
        cr = cairo_create(surface);
        scale = image.width / displayWidth;
        cairo_scale(cr, scale, image.height / displayHeight);
        // The wallpaper is drawn once at pixel size and copied under every repaint.
        wallpaper = cairo_image_surface_create(CAIRO_FORMAT_RGB24, image.width, image.height);
        cairo_t* w = cairo_create(wallpaper);
        cairo_pattern_t* g = cairo_pattern_create_linear(0, 0, image.width, image.height);
        cairo_pattern_add_color_stop_rgb(g, 0, 0.16, 0.22, 0.42);
        cairo_pattern_add_color_stop_rgb(g, 0.55, 0.36, 0.27, 0.52);
        cairo_pattern_add_color_stop_rgb(g, 1, 0.86, 0.47, 0.42);
        cairo_set_source(w, g);
        cairo_paint(w);
        cairo_pattern_destroy(g);
        cairo_destroy(w);
    }

    ~Painter()
    {
        for (auto& [key, layout] : layouts)
            g_object_unref(layout);
        cairo_destroy(cr);
        cairo_surface_destroy(surface);
        cairo_surface_destroy(wallpaper);
    }

    // Laid out once per text and look; shaping is the costly part of drawing text.
    PangoLayout* layout(const std::string& text, const char* font)
    {
        std::string key = std::string(font) + "\n" + text;
        auto found = layouts.find(key);
        if (found != layouts.end())
            return found->second;
        PangoLayout* made = pango_cairo_create_layout(cr);
        PangoFontDescription* description = pango_font_description_from_string(font);
        pango_layout_set_font_description(made, description);
        pango_font_description_free(description);
        pango_layout_set_text(made, text.c_str(), -1);
        layouts.emplace(key, made);
        return made;
    }

    void text(const std::string& s, const char* font, double x, double y, Rgb c, double alpha = 1)
    {
        cairo_set_source_rgba(cr, c.r, c.g, c.b, alpha);
        cairo_move_to(cr, x, y);
        pango_cairo_show_layout(cr, layout(s, font));
    }

    double textWidth(const std::string& s, const char* font)
    {
        int w = 0, h = 0;
        pango_layout_get_pixel_size(layout(s, font), &w, &h);
        return w;
    }

    void window(Box b, const char* title)
    {
        for (int i = 4; i >= 1; --i) {
            roundedRect(cr, {b.x - i * 2, b.y - i + 6, b.w + i * 4, b.h + i * 3}, 12 + i * 2);
            fill(cr, {0, 0, 0}, 0.05);
        }
        roundedRect(cr, b, 12);
        fill(cr, {0.985, 0.985, 0.99});
        cairo_save(cr);
        roundedRect(cr, b, 12);
        cairo_clip(cr);
        cairo_rectangle(cr, b.x, b.y, b.w, 38);
        fill(cr, {0.93, 0.93, 0.95});
        cairo_restore(cr);
        double w = textWidth(title, "Noto Sans Bold 11");
        text(title, "Noto Sans Bold 11", b.x + (b.w - w) / 2, b.y + 10, {0.2, 0.2, 0.25});
        cairo_arc(cr, b.x + b.w - 22, b.y + 19, 8, 0, 2 * M_PI);
        fill(cr, {0.82, 0.82, 0.86});
    }

    void paint(const State& s, const Script& script, const std::vector<Box>& damage)
    {
        cairo_save(cr);
        for (const auto& b : damage)
            cairo_rectangle(cr, b.x, b.y, b.w, b.h);
        cairo_clip(cr);

        cairo_save(cr);
        cairo_identity_matrix(cr);
        cairo_set_source_surface(cr, wallpaper, 0, 0);
        cairo_paint(cr);
        cairo_restore(cr);

        cairo_rectangle(cr, topBar.x, topBar.y, topBar.w, topBar.h);
        fill(cr, {0.07, 0.07, 0.09}, 0.92);
        text("Activities", "Noto Sans Bold 10", 16, 6, {0.95, 0.95, 0.95});
        text("Mon 23 Nov  10:24", "Noto Sans Bold 10", 580, 6, {0.95, 0.95, 0.95});

        paintFiles(s);
        paintEditor(s, script);
        paintToast(s);
        cairo_restore(cr);
        cairo_surface_flush(surface);
    }

    void paintEditor(const State& s, const Script& script)
    {
        window(editor, "Notes — launch.txt");
        const char* labels[] = {"Bold", "Italic", "List"};
        for (int i = 0; i < 3; ++i) {
            Box b{editor.x + 24 + i * 78, saveButton.y, 68, saveButton.h};
            roundedRect(cr, b, 7);
            fill(cr, {0.9, 0.9, 0.93});
            text(labels[i], "Noto Sans 10", b.x + 14, b.y + 6, {0.25, 0.25, 0.3});
        }
        roundedRect(cr, saveButton, 7);
        fill(cr, s.savePressed ? Rgb{0.12, 0.36, 0.78} : Rgb{0.2, 0.47, 0.93});
        text("Save", "Noto Sans Bold 10", saveButton.x + 22, saveButton.y + 6, {1, 1, 1});
        cairo_rectangle(cr, editor.x, saveButton.y + saveButton.h + 12, editor.w, 1);
        fill(cr, {0.88, 0.88, 0.9});

        double y = editorText.y;
        for (std::size_t i = 0; i < noteLines.size(); ++i, y += lineHeight)
            text(noteLines[i], i == 0 ? "Noto Sans Bold 15" : "Noto Sans 13", editorText.x, y, {0.16, 0.16, 0.2});
        std::string typed = script.typed.substr(0, static_cast<std::size_t>(s.typed));
        text(typed, "Noto Sans 13", editorText.x, y, {0.1, 0.1, 0.14});
        if (s.caret) {
            cairo_rectangle(cr, editorText.x + textWidth(typed, "Noto Sans 13") + 1, y + 2, 1.5, 19);
            fill(cr, {0.2, 0.47, 0.93});
        }
    }

    void paintFiles(const State& s)
    {
        window(files, "Files — Videos");
        text("Name", "Noto Sans Bold 10", files.x + 20, files.y + 48, {0.4, 0.4, 0.45});
        text("Length", "Noto Sans Bold 10", files.x + files.w - 80, files.y + 48, {0.4, 0.4, 0.45});
        cairo_save(cr);
        cairo_rectangle(cr, listView.x, listView.y, listView.w, listView.h - 12);
        cairo_clip(cr);
        double offset = s.scrollPixels / scale;
        int first = static_cast<int>(offset / rowHeight);
        for (int row = first; row < rowCount && row * rowHeight - offset < listView.h; ++row) {
            double y = listView.y + row * rowHeight - offset;
            if (row == s.selectedRow) {
                roundedRect(cr, {listView.x + 8, y + 1, listView.w - 16, rowHeight - 2}, 6);
                fill(cr, {0.2, 0.47, 0.93});
            } else if (row % 2 == 1) {
                cairo_rectangle(cr, listView.x + 8, y + 1, listView.w - 16, rowHeight - 2);
                fill(cr, {0.95, 0.95, 0.97});
            }
            Rgb ink = row == s.selectedRow ? Rgb{1, 1, 1} : Rgb{0.18, 0.18, 0.22};
            char name[64], length[16];
            std::snprintf(name, sizeof name, "Walkthrough %02d.mov", row + 1);
            std::snprintf(length, sizeof length, "%d:%02d", 1 + row % 7, (row * 17) % 60);
            roundedRect(cr, {listView.x + 20, y + 9, 16, 16}, 3);
            fill(cr, row == s.selectedRow ? Rgb{1, 1, 1} : Rgb{0.55, 0.62, 0.85});
            text(name, "Noto Sans 11", listView.x + 46, y + 7, ink);
            text(length, "Noto Sans Mono 10", listView.x + listView.w - 80, y + 8, ink);
        }
        cairo_restore(cr);
    }

    void paintToast(const State& s)
    {
        if (s.toastLevel == 0)
            return;
        double a = s.toastLevel / 32.0;
        Box b{toast.x, toast.y + (1 - a) * 12, toast.w, toast.h - 12};
        roundedRect(cr, b, 20);
        fill(cr, {0.1, 0.1, 0.12}, 0.88 * a);
        text("Saved to Videos/Plim", "Noto Sans Bold 11", b.x + 64, b.y + 10, {1, 1, 1}, a);
    }
};

Desktop::Desktop(const Script& script, int width, int height)
    : m_script(script)
    , m_image(Image::allocate(width, height))
    , m_painter(std::make_unique<Painter>(m_image))
{
}

Desktop::~Desktop() = default;

Desktop::State Desktop::stateAt(double t) const
{
    State s;
    s.typed = static_cast<int>(std::count_if(m_script.typedAt.begin(), m_script.typedAt.end(), [&](double at) { return at <= t; }));
    bool typing = !m_script.typedAt.empty() && t >= m_script.typedAt.front() - 0.5
        && t <= m_script.typedAt.back() + 0.5;
    s.caret = typing || std::fmod(t, 1.06) < 0.53;
    double u = (t - m_script.scrollStart) / (m_script.scrollEnd - m_script.scrollStart);
    double scrolled = ease(u) * m_script.scrollRows * rowHeight;
    s.scrollPixels = static_cast<int>(std::lround(scrolled * m_painter->scale));
    for (const auto& click : m_script.clicks) {
        if (click.t > t)
            break;
        bool inList = click.x >= listView.x && click.x < listView.x + listView.w && click.y >= listView.y
            && click.y < listView.y + listView.h;
        if (inList) {
            double at = ease((click.t - m_script.scrollStart) / (m_script.scrollEnd - m_script.scrollStart))
                * m_script.scrollRows * rowHeight;
            s.selectedRow = static_cast<int>((click.y - listView.y + at) / rowHeight);
        }
        bool onSave = click.x >= saveButton.x && click.x < saveButton.x + saveButton.w && click.y >= saveButton.y
            && click.y < saveButton.y + saveButton.h;
        if (onSave && t - click.t < 0.15)
            s.savePressed = true;
    }
    if (t >= m_script.savedAt)
        s.toastLevel = static_cast<int>(std::lround(std::min(1.0, (t - m_script.savedAt) / 0.3) * 32));
    return s;
}

const Image& Desktop::frameAt(double t)
{
    State now = stateAt(t);
    std::vector<Box> damage;
    if (!m_shown) {
        damage.push_back({0, 0, displayWidth, displayHeight});
    } else {
        const State& was = *m_shown;
        if (now.typed != was.typed || now.caret != was.caret)
            damage.push_back({editorText.x - 4, editorText.y + noteLines.size() * lineHeight - 2, editorText.w, lineHeight + 4});
        if (now.scrollPixels != was.scrollPixels || now.selectedRow != was.selectedRow)
            damage.push_back(listView);
        if (now.savePressed != was.savePressed)
            damage.push_back(saveButton);
        if (now.toastLevel != was.toastLevel)
            damage.push_back(toast);
    }
    double area = 0;
    for (const auto& b : damage)
        area += b.w * b.h;
    m_lastShare = area / (displayWidth * displayHeight);
    if (!damage.empty())
        m_painter->paint(now, m_script, damage);
    m_shown = std::make_unique<State>(now);
    return m_image;
}

} // namespace plim::demo
