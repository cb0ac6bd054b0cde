#include "share/plim_thumbs.h"

#include "base/log.h"
#include "share/share_plim.h"

#include <cairo.h>

#include <chrono>
#include <cstdio>

namespace plim {

namespace {

// The frame scaled to the thumbnail width with cairo's good filter.
Image shrunk(const Image& frame)
{
    const int width = std::min(PlimThumbs::width, frame.width);
    const int height = std::max(2, static_cast<int>(static_cast<double>(frame.height) * width / frame.width) / 2 * 2);
    Image out = Image::allocate(width, height);
    cairo_surface_t* source = cairo_image_surface_create_for_data(frame.pixels.get(), CAIRO_FORMAT_ARGB32, frame.width,
        frame.height, static_cast<int>(frame.stride));
    cairo_surface_t* target = cairo_image_surface_create_for_data(out.pixels.get(), CAIRO_FORMAT_ARGB32, out.width,
        out.height, static_cast<int>(out.stride));
    cairo_t* cr = cairo_create(target);
    cairo_scale(cr, static_cast<double>(width) / frame.width, static_cast<double>(height) / frame.height);
    cairo_set_source_surface(cr, source, 0, 0);
    cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_GOOD);
    cairo_paint(cr);
    cairo_destroy(cr);
    cairo_surface_finish(target);
    cairo_surface_destroy(target);
    cairo_surface_destroy(source);
    return out;
}

} // namespace

Result<PlimThumbs::Drawn> PlimThumbs::draw(const fs::path& movie, std::optional<fs::path> wallpaper, bool posterOnly)
{
    const std::string name = movie.filename().string();
    auto undrawable = [&](const std::string& why) {
        logLine("Plim thumbnails: " + name + " could not be drawn (" + why + ")");
        return fail("Thumbnails for " + name + " could not be drawn: a frame could not be rendered. The plim itself is untouched.");
    };
    logLine("Plim thumbnails: drawing " + name + " (" + (posterOnly ? "poster" : "poster and strip") + ")");
    const auto started = std::chrono::steady_clock::now();
    auto plim = SharePlim::read(movie);
    if (!plim)
        return undrawable(plim.error().sentence);
    StagingJob& job = plim->job;
    job.wallpaper = wallpaper;
    job.quality = RenderRules::Quality::p720;

    // Output times of the poster and strip; the engine maps them through the same timeline.
    const double d = std::max(0.0, job.plan.clipTimeline(plim->info.duration).outputDuration());
    std::vector<double> outputTimes{posterAt * d};
    if (!posterOnly)
        for (int i = 0; i < stripCount; ++i)
            outputTimes.push_back(d * (i + 0.5) / stripCount);
    auto frames = StagingEngine::frames(job, outputTimes);
    if (!frames)
        return undrawable(frames.error().sentence);
    Drawn drawn;
    for (size_t i = 0; i < frames->size(); ++i) {
        if ((*frames)[i].isEmpty())
            return undrawable("an empty frame");
        Image small = shrunk((*frames)[i]);
        if (i == 0)
            drawn.poster = std::move(small);
        else
            drawn.strip.push_back(std::move(small));
    }
    char took[32];
    std::snprintf(took, sizeof took, "%.1f", std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
    logLine("Plim thumbnails: " + name + " drawn in " + took + " s");
    return drawn;
}

} // namespace plim
