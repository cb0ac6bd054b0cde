#pragma once
// What fills the canvas behind the screen card, resolved from a stage look: gradient art
// (the named backdrops and the look's seven), a solid colour, two colours, or a picture
// (an image backdrop, or the desktop's wallpaper) with an optional blur.

#include "base/image.h"
#include "stage/compositor.h"
#include "stage/stage_spec.h"
#include "stage/stage_style.h"

#include <filesystem>
#include <optional>
#include <string>

namespace plim {

struct BackdropChoice {
    stage_style::BackdropArt art;                // drawn when there is no picture, or it cannot be read
    std::optional<std::filesystem::path> picture; // PNG
    double blur = 0;                             // of the picture, in pixels of a 1280-wide canvas
};

// The card look's backdrop name wins over the stage look's own backdrop; `wallpaper` is the desktop
// picture to use for the wallpaper backdrop (its own art when absent).
BackdropChoice resolveBackdrop(const StageSpec& spec, const std::optional<std::filesystem::path>& wallpaper);

// Why the picture the backdrop asks for cannot be drawn, so that the gradient shows in its
// place: a picture file that cannot be read, or a wallpaper backdrop without a desktop
// picture (`wallpaper` absent). Nothing when the backdrop draws as chosen. Reads only the
// picture's header; never touches the file.
std::optional<std::string> backdropFallback(const StageSpec& spec, const std::optional<std::filesystem::path>& wallpaper);

// Fills `target` with the backdrop. A picture that cannot be read leaves the art and a
// logged notice; the file itself is never touched.
void drawBackdrop(Compositor& compositor, Image& target, const BackdropChoice& choice);

// Reads a picture file: PNG through cairo (keeping its transparency), anything else FFmpeg
// decodes (JPEG, WebP, ...) as a movie of one frame. A sentence when it cannot, or when
// the picture is larger than Plim decodes (checked from its header first).
Result<Image> readPicture(const std::filesystem::path& path);

} // namespace plim
