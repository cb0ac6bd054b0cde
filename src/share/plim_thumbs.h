#pragma once
// A plim's thumbnails: a strip of 24 frames and a poster frame, drawn as the staged
// picture shows them and kept in one HEIC file beside the movie (B.thumbs.heic), the
// poster first and the strip after it.
//
// This sits in share/ rather than library/ because drawing needs the stage renderer
// (stage/ lies to the library's right) and storing needs libheif, which share links.
//
// Threads: every call may run on any thread; draw() is slow (seconds) and belongs on a
// worker. Nothing here touches the plim's own files; a failed store leaves no partial file
// and whatever B.thumbs.heic held before.

#include "base/error.h"
#include "base/image.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace plim {

namespace fs = std::filesystem;
struct EditPlan;

struct PlimThumbs {
    static constexpr int stripCount = 24;
    static constexpr double posterAt = 0.45; // of the output's length
    static constexpr int quality = 70;        // libheif's lossy quality (0.7)
    static constexpr int width = 320;         // pixels; the height follows the canvas

    // Raw movie times of the strip and the poster.
    struct Times {
        std::vector<double> strip; // stripCount times
        double poster = 0;
        bool operator==(const Times&) const = default;
    };

    // The strip at output times D × (i + 0.5) / 24 and the poster at 0.45 × D, each clamped
    // to 0...D and mapped back to raw time through the clip timeline and the time remap; the
    // poster is then clamped to 0...rawDuration.
    static Times times(const EditPlan& plan, double rawDuration);

    struct Drawn {
        Image poster;
        std::vector<Image> strip;
    };

    // Renders the frames at those times as the staged picture would show them (the plim's
    // look over `wallpaper` when its backdrop asks for the desktop picture). `posterOnly`
    // draws the poster alone. Fails with the "could not be drawn" sentence.
    static Result<Drawn> draw(const fs::path& movie, std::optional<fs::path> wallpaper = std::nullopt, bool posterOnly = false);

    // Writes the poster and strip as one HEIC file through a "partial" temporary name, then
    // puts it in place of B.thumbs.heic.
    static Status store(const Drawn& images, const fs::path& besideMovie);

    // Stale when B.thumbs.heic is missing or older than the movie or B.edits.json.
    static bool isStale(const fs::path& besideMovie);

    // The stored images (poster first), or nothing when there are none readable.
    static std::optional<Drawn> read(const fs::path& besideMovie);

    static fs::path pathFor(const fs::path& movie);
};

} // namespace plim
