// Backdrop art and pictures.

#include "stage/stage_backdrop.h"

#include "base/log.h"
#include "base/text.h"
#include "library/library.h"
#include "media/media.h"
#include "stage/stage_renderer.h"

#include <cairo.h>

#include <unistd.h>

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <numbers>
#include <string>

namespace plim {
namespace {

void drawArt(Compositor& c, Image& target, const stage_style::BackdropArt& art)
{
    const double w = target.width, h = target.height;
    if (art.stops.size() == 1) {
        c.clear(target, art.stops.front().color);
    } else {
        // The gradient runs through the centre at its angle (y up), spanning the picture.
        const double rad = art.angle * std::numbers::pi / 180;
        const double dx = std::cos(rad), dy = -std::sin(rad);
        const double half = (std::abs(w * dx) + std::abs(h * dy)) / 2;
        const Point mid{w / 2, h / 2};
        c.clear(target, art.stops.front().color);
        c.fillGradient(target,
            Gradient::linear({mid.x - dx * half, mid.y - dy * half}, {mid.x + dx * half, mid.y + dy * half}, art.stops));
    }
    if (art.glow.a > 0) {
        const double r = 0.95 * std::max(w, h);
        c.fillGradient(target, Gradient::radial({0.18 * w, 0.1 * h}, 0, r, {{0, art.glow}, {1, art.glow.withAlpha(0)}}));
    }
}

} // namespace

BackdropChoice resolveBackdrop(const StageSpec& spec, const std::optional<std::filesystem::path>& wallpaper)
{
    using Named = StageSpec::Backdrop::Named;
    BackdropChoice choice;
    choice.art = stage_style::namedBackdrop(Named::gradient);
    if (spec.card && spec.card->backdrop) {
        if (auto look = PlimLook::backdropFromText(*spec.card->backdrop)) {
            choice.art = stage_style::lookBackdrop(*look);
            return choice;
        }
        if (auto named = backdropNameFromText(*spec.card->backdrop); named && *named != Named::wallpaper) {
            choice.art = stage_style::namedBackdrop(*named);
            return choice;
        }
    }
    const auto& value = spec.backdrop.value;
    if (const auto* named = std::get_if<Named>(&value)) {
        choice.art = stage_style::namedBackdrop(*named);
        if (*named == Named::wallpaper)
            choice.picture = wallpaper;
    } else if (const auto* solid = std::get_if<StageSpec::Backdrop::Solid>(&value)) {
        if (auto colour = Color::fromHex(solid->hex))
            choice.art.stops = {{0, colour->withAlpha(1)}};
        choice.art.glow = {1, 1, 1, 0};
    } else if (const auto* duo = std::get_if<StageSpec::Backdrop::Duo>(&value)) {
        auto a = Color::fromHex(duo->a), b = Color::fromHex(duo->b);
        if (a && b) {
            choice.art.stops = {{0, a->withAlpha(1)}, {1, b->withAlpha(1)}};
            choice.art.angle = stage_style::duoAngle;
            choice.art.glow = {1, 1, 1, 0.08};
        }
    } else if (const auto* image = std::get_if<StageSpec::Backdrop::Image>(&value)) {
        choice.picture = std::filesystem::path(image->path);
        choice.blur = std::max(0, image->blur) * stage_style::imageBlurPerUnit;
    }
    return choice;
}

namespace {

// A reader for a picture that is not a PNG; a picture too large keeps the reader's sentence.
Result<std::unique_ptr<MovieReader>> pictureReader(const std::filesystem::path& path)
{
    auto reader = MovieReader::create(path);
    if (!reader && reader.error().kind != Error::Kind::refused)
        return fail("The backdrop picture " + path.filename().string() + " could not be read as a picture.",
            reader.error().kind);
    return reader;
}

Result<Image> readThroughFFmpeg(const std::filesystem::path& path)
{
    auto reader = PLIM_TRY(pictureReader(path));
    auto frame = reader->next();
    if (!frame || !*frame || (**frame).image.isEmpty())
        return fail("The backdrop picture " + path.filename().string() + " could not be read as a picture.",
            Error::Kind::corrupt);
    return (**frame).image.clone(); // its own pixels, not the reader's
}

bool isPng(const std::filesystem::path& path)
{
    std::string extension = path.extension().string();
    for (char& c : extension)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return extension == ".png";
}

// The picture file opened as an ordinary file; a PNG's size read from its header.
Status checkPictureFile(const std::filesystem::path& path)
{
    const std::string name = path.filename().string();
    auto fd = openOrdinaryFile(path);
    if (!fd)
        return fail(fd.error().kind == Error::Kind::missing
                ? "The backdrop picture " + path.string() + " is not there."
                : "The backdrop picture " + path.string() + " cannot be read (" + fd.error().sentence + ").",
            fd.error().kind);
    unsigned char head[24] = {};
    const ssize_t n = ::read(*fd, head, sizeof head);
    ::close(*fd);
    if (!isPng(path))
        return {};
    static constexpr unsigned char signature[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    if (n < 24 || std::memcmp(head, signature, sizeof signature) != 0 || std::memcmp(head + 12, "IHDR", 4) != 0)
        return fail("The backdrop picture " + name + " is not a PNG picture.", Error::Kind::corrupt);
    auto word = [&](int at) {
        return (int64_t(head[at]) << 24) | (int64_t(head[at + 1]) << 16) | (int64_t(head[at + 2]) << 8) | head[at + 3];
    };
    auto size = checkPictureSize("The backdrop picture " + name, word(16), word(20));
    if (!size)
        return fail(size.error().sentence, Error::Kind::refused);
    return {};
}

} // namespace

Status checkBackdrop(const StageSpec::Backdrop& backdrop)
{
    auto colour = [](const std::string& hex) -> Status {
        if (Color::fromHex(hex))
            return {};
        return fail("\"" + escapedText(hex) + "\" is not a colour (write it as #RRGGBB).", Error::Kind::refused);
    };
    if (const auto* solid = std::get_if<StageSpec::Backdrop::Solid>(&backdrop.value))
        return colour(solid->hex);
    if (const auto* duo = std::get_if<StageSpec::Backdrop::Duo>(&backdrop.value)) {
        PLIM_TRY(colour(duo->a));
        return colour(duo->b);
    }
    const auto* image = std::get_if<StageSpec::Backdrop::Image>(&backdrop.value);
    if (!image)
        return {};
    if (image->path.empty())
        return fail("The image backdrop names no picture file.", Error::Kind::missing);
    PLIM_TRY(checkPictureFile(image->path));
    if (isPng(image->path))
        return {};
    if (auto reader = pictureReader(image->path); !reader)
        return std::unexpected(reader.error());
    return {};
}

std::optional<std::string> backdropFallback(const StageSpec& spec, const std::optional<std::filesystem::path>& wallpaper)
{
    const BackdropChoice choice = resolveBackdrop(spec, wallpaper);
    const auto named = spec.backdrop.name();
    if (!choice.picture && named == StageSpec::Backdrop::Named::wallpaper && !(spec.card && spec.card->backdrop))
        return "Plim could not find the desktop's wallpaper (the desktop's settings name no picture it can read), so "
               "the gradient backdrop is shown instead; choose a colour or a picture for the backdrop to use your own.";
    if (!choice.picture)
        return std::nullopt;
    const auto usable = checkBackdrop(StageSpec::Backdrop::image(choice.picture->string(), 0));
    if (usable)
        return std::nullopt;
    std::string why = usable.error().sentence;
    if (why.ends_with('.'))
        why.pop_back();
    return why + ", so the gradient backdrop is shown instead. The file was left as it is; choose a PNG, JPEG or WebP "
          "picture for the backdrop to use one.";
}

Result<Image> readPicture(const std::filesystem::path& path)
{
    const std::string name = path.filename().string();
    if (auto file = checkPictureFile(path); !file)
        return std::unexpected(file.error());
    if (!isPng(path))
        return readThroughFFmpeg(path);
    cairo_surface_t* surface = cairo_image_surface_create_from_png(path.c_str());
    if (const cairo_status_t status = cairo_surface_status(surface); status != CAIRO_STATUS_SUCCESS) {
        cairo_surface_destroy(surface);
        if (status == CAIRO_STATUS_READ_ERROR || status == CAIRO_STATUS_FILE_NOT_FOUND)
            return fail("The backdrop picture " + name + " could not be opened for reading.", Error::Kind::unreadable);
        return fail("The backdrop picture " + name + " could not be read as a PNG picture.", Error::Kind::corrupt);
    }
    const int w = cairo_image_surface_get_width(surface), h = cairo_image_surface_get_height(surface);
    const int stride = cairo_image_surface_get_stride(surface);
    const bool opaque = cairo_image_surface_get_format(surface) != CAIRO_FORMAT_ARGB32;
    const uint8_t* data = cairo_image_surface_get_data(surface);
    Image image = Image::allocate(w, h);
    for (int y = 0; y < h && data; ++y) {
        std::memcpy(image.row(y), data + static_cast<ptrdiff_t>(y) * stride, static_cast<size_t>(w) * 4);
        if (opaque)
            for (int x = 0; x < w; ++x)
                image.row(y)[x * 4 + 3] = 255;
    }
    cairo_surface_destroy(surface);
    if (image.isEmpty())
        return fail("The backdrop picture " + name + " has no pixels.", Error::Kind::corrupt);
    return image;
}

void drawBackdrop(Compositor& c, Image& target, const BackdropChoice& choice)
{
    drawArt(c, target, choice.art);
    if (!choice.picture)
        return;
    auto picture = readPicture(*choice.picture);
    if (!picture) {
        logLine(LogArea::main,
            picture.error().sentence
                + " The stage uses the default backdrop instead and the file was left as it is; choose a PNG, JPEG or WebP picture to use it.");
        drawArt(c, target, stage_style::namedBackdrop(StageSpec::Backdrop::Named::gradient));
        return;
    }
    // Cover the canvas with the picture's middle.
    const double s = std::max(double(target.width) / picture->width, double(target.height) / picture->height);
    const Affine fit = Affine::scale(s, s).then(
        Affine::translation((target.width - picture->width * s) / 2, (target.height - picture->height * s) / 2));
    c.draw(target, *picture, fit, std::nullopt, 1, Filter::best);
    if (choice.blur > 0)
        c.blur(target, {0, 0, double(target.width), double(target.height)}, choice.blur * target.width / 1280.0);
}

} // namespace plim
