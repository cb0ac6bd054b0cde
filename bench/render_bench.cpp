// Frames per second of StageRenderer::render for a 2560×1600 recording composed into a
// 1920×1080 canvas: no zoom, a static zoom, a moving zoom, and a busy frame (pointer,
// clicks, keycaps, caption, blur box). `--png <folder>` also writes one frame of each.
//
//   render_bench [--frames N] [--png folder]

#include "stage/stage_renderer.h"

#include <cairo.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

using namespace plim;

namespace {

// A desktop-like picture: window bars, lines of "text" strokes and a fine grid.
Image desktop(int w, int h)
{
    Image image = Image::allocate(w, h);
    for (int y = 0; y < h; ++y) {
        uint8_t* row = image.row(y);
        for (int x = 0; x < w; ++x) {
            int v = 242;
            const bool bar = (y % 400) < 36;
            const bool text = (y % 22) > 12 && (y % 22) < 20 && ((x / 7) % 9) != 0 && ((x * 13 + y * 7) % 11) > 3;
            if (bar)
                v = 60;
            else if (text && (x % 640) > 40 && (x % 640) < 600)
                v = 40;
            uint8_t* p = row + x * 4;
            p[0] = static_cast<uint8_t>(bar ? 90 : v);
            p[1] = static_cast<uint8_t>(v);
            p[2] = static_cast<uint8_t>(v);
            p[3] = 255;
        }
    }
    return image;
}

void writePng(const Image& image, const std::string& path)
{
    cairo_surface_t* s = cairo_image_surface_create_for_data(const_cast<uint8_t*>(image.row(0)), CAIRO_FORMAT_ARGB32,
        image.width, image.height, static_cast<int>(image.stride));
    cairo_surface_write_to_png(s, path.c_str());
    cairo_surface_destroy(s);
}

} // namespace

int main(int argc, char** argv)
{
    int frames = 120;
    std::string png;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--frames") == 0)
            frames = std::max(1, std::atoi(argv[i + 1]));
        else if (std::strcmp(argv[i], "--png") == 0)
            png = argv[i + 1];
    }
    const Image source = desktop(2560, 1600);
    StageSpec spec;
    spec.clickStyle = ClickStyle::ring;
    StageRenderer::Options options;
    options.content = {2560, 1600};
    auto made = StageRenderer::create(spec, {1920, 1080}, options);
    if (!made) {
        std::fprintf(stderr, "%s\n", made.error().sentence.c_str());
        return 1;
    }
    StageRenderer& renderer = **made;

    struct Scenario {
        const char* name;
        StageMoment (*moment)(int frame, int frames);
    };
    const Scenario scenarios[] = {
        {"no zoom", [](int, int) { return StageMoment{}; }},
        {"static zoom 1.8x", [](int, int) {
             StageMoment m;
             m.zoom = {1.8, 0.4, 0.35};
             return m;
         }},
        {"moving zoom 1x to 2x", [](int i, int n) {
             StageMoment m;
             const double t = double(i) / n;
             m.zoom = {1 + t, 0.3 + 0.3 * t, 0.3 + 0.2 * t};
             m.zoomVelocity = 1.2;
             return m;
         }},
        {"busy frame", [](int i, int n) {
             StageMoment m;
             const double t = double(i) / n;
             m.zoom = {1.5, 0.5, 0.5};
             m.cursor = StageMoment::Cursor{0.45 + 0.1 * t, 0.5, 0.44 + 0.1 * t, 0.5, 1, 0};
             m.clicks = {{0.5, 0.5, 0.2 + 0.3 * t}};
             m.keycaps = {{1000, "⌘S"}, {1100, "⇧⌘P"}};
             m.keycapTime = 1.3;
             m.caption = "The staged render draws every layer of the stage";
             MaskRegion mask;
             mask.x = 0.55, mask.y = 0.3, mask.w = 0.2, mask.h = 0.15;
             m.masks = {mask};
             return m;
         }},
    };
    std::printf("render_bench: 2560x1600 source into a 1920x1080 canvas, %d frames each\n", frames);
    for (const Scenario& s : scenarios) {
        renderer.render(source, s.moment(0, frames)); // warm up caches
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < frames; ++i) {
            Image frame = renderer.render(source, s.moment(i, frames));
            if (frame.isEmpty())
                return 1;
        }
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        std::printf("  %-22s %7.1f fps  %6.2f ms/frame\n", s.name, frames / seconds, 1000 * seconds / frames);
        if (!png.empty()) {
            std::string name = s.name;
            for (char& c : name)
                if (!std::isalnum(static_cast<unsigned char>(c)))
                    c = '_';
            writePng(renderer.render(source, s.moment(frames / 2, frames)), png + "/" + name + ".png");
        }
    }
    return 0;
}
