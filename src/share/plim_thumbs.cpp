#include "share/plim_thumbs.h"

#include "base/dates.h"
#include "base/files.h"
#include "base/log.h"
#include "library/library.h"
#include "plan/plan.h"

#include <libheif/heif.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

namespace plim {

namespace {

struct ContextFree {
    void operator()(heif_context* c) const { heif_context_free(c); }
};
struct EncoderFree {
    void operator()(heif_encoder* e) const { heif_encoder_release(e); }
};
struct ImageFree {
    void operator()(heif_image* i) const { heif_image_release(i); }
};
struct HandleFree {
    void operator()(heif_image_handle* h) const { heif_image_handle_release(h); }
};
using Context = std::unique_ptr<heif_context, ContextFree>;
using Encoder = std::unique_ptr<heif_encoder, EncoderFree>;
using HeifImage = std::unique_ptr<heif_image, ImageFree>;
using Handle = std::unique_ptr<heif_image_handle, HandleFree>;

std::string noHeic(const fs::path& movie, const std::string& reason)
{
    return "Thumbnails for " + movie.filename().string() + " could not be written: this computer cannot write HEIC "
        "images here (" + reason + "). The plim itself is untouched.";
}

std::string noSpace(const fs::path& movie)
{
    return "Thumbnails for " + movie.filename().string() + " could not be written. Check there is free space in "
        + movie.parent_path().string() + ", then open the plim again. The plim itself is untouched.";
}

// Premultiplied BGRA to interleaved RGB (frames are opaque; anything else is over black).
Result<HeifImage> toHeif(const Image& image)
{
    heif_image* raw = nullptr;
    heif_error error = heif_image_create(image.width, image.height, heif_colorspace_RGB, heif_chroma_interleaved_RGB, &raw);
    HeifImage out(raw);
    if (error.code != heif_error_Ok || heif_image_add_plane(raw, heif_channel_interleaved, image.width, image.height, 8).code != heif_error_Ok)
        return fail(error.message ? error.message : "no image could be made");
    int stride = 0;
    uint8_t* plane = heif_image_get_plane(raw, heif_channel_interleaved, &stride);
    for (int y = 0; y < image.height; ++y) {
        const uint8_t* src = image.row(y);
        uint8_t* dst = plane + static_cast<ptrdiff_t>(y) * stride;
        for (int x = 0; x < image.width; ++x) {
            dst[3 * x + 0] = src[4 * x + 2];
            dst[3 * x + 1] = src[4 * x + 1];
            dst[3 * x + 2] = src[4 * x + 0];
        }
    }
    return out;
}

std::optional<Image> fromHandle(heif_image_handle* handle)
{
    heif_image* raw = nullptr;
    if (heif_decode_image(handle, &raw, heif_colorspace_RGB, heif_chroma_interleaved_RGB, nullptr).code != heif_error_Ok)
        return std::nullopt;
    HeifImage decoded(raw);
    int stride = 0;
    const uint8_t* plane = heif_image_get_plane_readonly(raw, heif_channel_interleaved, &stride);
    const int width = heif_image_get_width(raw, heif_channel_interleaved);
    const int height = heif_image_get_height(raw, heif_channel_interleaved);
    if (!plane || width <= 0 || height <= 0)
        return std::nullopt;
    Image image = Image::allocate(width, height);
    for (int y = 0; y < height; ++y) {
        const uint8_t* src = plane + static_cast<ptrdiff_t>(y) * stride;
        uint8_t* dst = image.row(y);
        for (int x = 0; x < width; ++x) {
            dst[4 * x + 0] = src[3 * x + 2];
            dst[4 * x + 1] = src[3 * x + 1];
            dst[4 * x + 2] = src[3 * x + 0];
            dst[4 * x + 3] = 255;
        }
    }
    return image;
}

std::optional<fs::file_time_type> modified(const fs::path& path)
{
    std::error_code error;
    auto time = fs::last_write_time(path, error);
    if (error)
        return std::nullopt;
    return time;
}

} // namespace

fs::path PlimThumbs::pathFor(const fs::path& movie) { return sidecarPath(movie, PlimFiles::thumbs); }

PlimThumbs::Times PlimThumbs::times(const EditPlan& plan, double rawDuration)
{
    const ClipTimeline timeline = plan.clipTimeline(rawDuration);
    const double d = std::max(0.0, timeline.outputDuration());
    auto toRaw = [&](double output) { return timeline.rawTime(std::clamp(output, 0.0, d)).value_or(0.0); };
    Times times;
    for (int i = 0; i < stripCount; ++i)
        times.strip.push_back(toRaw(d * (i + 0.5) / stripCount));
    times.poster = std::clamp(toRaw(posterAt * d), 0.0, std::max(0.0, rawDuration));
    return times;
}

Status PlimThumbs::store(const Drawn& images, const fs::path& besideMovie)
{
    const fs::path target = pathFor(besideMovie);
    if (images.poster.isEmpty())
        return fail(noHeic(besideMovie, "there is no picture to store"));
    Context context(heif_context_alloc());
    heif_encoder* rawEncoder = nullptr;
    heif_error error = heif_context_get_encoder_for_format(context.get(), heif_compression_HEVC, &rawEncoder);
    Encoder encoder(rawEncoder);
    if (error.code != heif_error_Ok)
        return fail(noHeic(besideMovie, error.message));
    heif_encoder_set_lossy_quality(rawEncoder, quality);

    std::vector<const Image*> order{&images.poster};
    for (const Image& frame : images.strip)
        order.push_back(&frame);
    for (size_t i = 0; i < order.size(); ++i) {
        auto image = toHeif(*order[i]);
        if (!image)
            return fail(noHeic(besideMovie, image.error().sentence));
        heif_image_handle* handle = nullptr;
        error = heif_context_encode_image(context.get(), image->get(), rawEncoder, nullptr, &handle);
        Handle owned(handle);
        if (error.code != heif_error_Ok)
            return fail(noHeic(besideMovie, error.message));
        if (i == 0)
            heif_context_set_primary_image(context.get(), handle);
    }

    const fs::path partial = partialSibling(target);
    error = heif_context_write_to_file(context.get(), partial.c_str());
    std::error_code ignored;
    if (error.code != heif_error_Ok) {
        fs::remove(partial, ignored);
        logLine("Plim thumbnails: could not write " + partial.string() + " (" + error.message + ")");
        return fail(noSpace(besideMovie), Error::Kind::noSpace);
    }
    if (::rename(partial.c_str(), target.c_str()) != 0) {
        const int err = errno;
        fs::remove(partial, ignored);
        logLine("Plim thumbnails: could not put " + partial.filename().string() + " in place of " + target.string()
            + " (" + errnoText(err) + ")");
        return fail(noSpace(besideMovie), Error::Kind::noSpace);
    }
    return {};
}

bool PlimThumbs::isStale(const fs::path& besideMovie)
{
    auto thumbs = modified(pathFor(besideMovie));
    if (!thumbs)
        return true;
    for (const fs::path& source : {besideMovie, sidecarPath(besideMovie, PlimFiles::edits)})
        if (auto changed = modified(source); changed && *changed > *thumbs)
            return true;
    return false;
}

std::optional<PlimThumbs::Drawn> PlimThumbs::read(const fs::path& besideMovie)
{
    Context context(heif_context_alloc());
    if (heif_context_read_from_file(context.get(), pathFor(besideMovie).c_str(), nullptr).code != heif_error_Ok)
        return std::nullopt;
    const int count = heif_context_get_number_of_top_level_images(context.get());
    if (count <= 0)
        return std::nullopt;
    std::vector<heif_item_id> ids(static_cast<size_t>(count));
    heif_context_get_list_of_top_level_image_IDs(context.get(), ids.data(), count);
    heif_item_id primary = 0;
    heif_context_get_primary_image_ID(context.get(), &primary);
    Drawn drawn;
    for (heif_item_id id : ids) {
        heif_image_handle* raw = nullptr;
        if (heif_context_get_image_handle(context.get(), id, &raw).code != heif_error_Ok)
            return std::nullopt;
        Handle handle(raw);
        auto image = fromHandle(raw);
        if (!image)
            return std::nullopt;
        if (id == primary && drawn.poster.isEmpty())
            drawn.poster = std::move(*image);
        else
            drawn.strip.push_back(std::move(*image));
    }
    if (drawn.poster.isEmpty())
        return std::nullopt;
    return drawn;
}

} // namespace plim
