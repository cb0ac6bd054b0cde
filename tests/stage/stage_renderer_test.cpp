// Pixels of composed frames: backdrop, card, corners, zoom, pointer, boxes, clicks, camera,
// keycaps, captions and transitions, drawn from synthetic recordings.

#include "stage/stage_backdrop.h"
#include "stage/stage_renderer.h"

#include "base/log.h"
#include "plan/plan.h"
#include "stage/device_frame.h"
#include "stage/reframe_math.h"
#include "stage/stage_pixels.h"
#include "testkit/testkit.h"

#include <cairo.h>
#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <tuple>

namespace plim {
namespace {

using namespace stagetest;

void writePng(const Image& image, const fs::path& path)
{
    cairo_surface_t* s = cairo_image_surface_create_for_data(const_cast<uint8_t*>(image.row(0)), CAIRO_FORMAT_ARGB32,
        image.width, image.height, static_cast<int>(image.stride));
    cairo_surface_write_to_png(s, path.c_str());
    cairo_surface_destroy(s);
}

// A source picture made by a function of the pixel position.
template<typename F>
Image picture(int w, int h, F colour)
{
    Image image = Image::allocate(w, h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const Rgba c = colour(x, y);
            uint8_t* p = image.row(y) + x * 4;
            p[0] = static_cast<uint8_t>(c.b), p[1] = static_cast<uint8_t>(c.g), p[2] = static_cast<uint8_t>(c.r);
            p[3] = 255;
        }
    return image;
}

Image solid(int w, int h, Rgba c) { return picture(w, h, [c](int, int) { return c; }); }
Image checker(int w, int h, int cell)
{
    return picture(w, h, [cell](int x, int y) {
        const int v = ((x / cell + y / cell) % 2) ? 235 : 20;
        return Rgba{v, v, v, 255};
    });
}

// Mean absolute difference between neighbouring pixels (detail) inside a pixel box.
double detail(const Image& image, int x0, int y0, int x1, int y1)
{
    double sum = 0;
    int n = 0;
    for (int y = y0; y < y1; ++y)
        for (int x = x0; x + 1 < x1; ++x, ++n)
            sum += std::abs(at(image, x, y).luma() - at(image, x + 1, y).luma());
    return n ? sum / n : 0;
}

// The sum of luma over a pixel box, at every `step`th pixel each way.
double lumaSum(const Image& image, int x0, int y0, int x1, int y1, int step = 1)
{
    double sum = 0;
    for (int y = y0; y < y1; y += step)
        for (int x = x0; x < x1; x += step)
            sum += at(image, x, y).luma();
    return sum;
}

std::unique_ptr<StageRenderer> renderer(const StageSpec& spec, Size canvas, Size content,
    StageRenderer::Options options = {})
{
    options.content = content;
    options.compositor.threads = 2;
    auto made = StageRenderer::create(spec, canvas, options);
    EXPECT_TRUE(made.has_value()) << (made ? "" : made.error().sentence);
    return made ? std::move(*made) : nullptr;
}

constexpr Rgba red{40, 40, 220, 255};

// A stage whose card fills the canvas with square corners.
const StageSpec flat{.paddingPX = 0, .cornersPX = 0};

TEST(StageRenderer, CardOverBackdropWithRoundedCorners)
{
    auto r = renderer({.cornersPX = 40}, {320, 180}, {160, 90});
    const Image frame = r->render(solid(160, 90, red), {});
    ASSERT_EQ(frame.width, 320);
    ASSERT_EQ(frame.height, 180);
    const Rect card = r->geometry().screenRect; // y up; this canvas is symmetric vertically
    // Backdrop at the corners, the recording inside the card.
    for (auto [x, y] : {std::pair{0, 0}, {319, 0}, {0, 179}, {319, 179}}) {
        EXPECT_EQ(distance(at(frame, x, y), at(r->ground(), x, y)), 0);
        EXPECT_GT(distance(at(frame, x, y), red), 100);
    }
    EXPECT_LT(distance(at(frame, 160, 90), red), 6);
    // Just inside the card's corner the ground shows through; halfway along an edge the card does.
    const int cx = static_cast<int>(std::ceil(card.minX())) + 1, cy = static_cast<int>(std::ceil(card.minY())) + 1;
    EXPECT_GT(distance(at(frame, cx, cy), red), 100);
    EXPECT_LT(distance(at(frame, static_cast<int>(card.midX()), cy), red), 20);
    // The card's edge is anti-aliased: along the row through the rounded corner some pixels
    // lie between the card and the ground.
    int between = 0;
    for (int x = cx - 2; x < cx + 10; ++x) {
        const Rgba p = at(frame, x, cy);
        between += distance(p, red) > 30 && distance(p, at(r->ground(), x, cy)) > 30;
    }
    EXPECT_GE(between, 2);
}

// A slow zoom must glide: a tracked feature moves by steadily changing amounts each frame.
TEST(StageRenderer, SlowZoomGlidesWithoutSteps)
{
    // A fine pattern with one soft bright spot to track.
    const Image source = picture(320, 180, [](int x, int y) {
        const double d2 = (x - 230.0) * (x - 230.0) + (y - 60.0) * (y - 60.0);
        const int spot = static_cast<int>(235 * std::exp(-d2 / 18));
        const int base = ((x + y) % 2) ? 12 : 0;
        return Rgba{base + spot, base + spot, base + spot, 255};
    });
    auto r = renderer(flat, {320, 180}, {320, 180});
    std::vector<double> xs;
    for (int i = 0; i < 30; ++i) {
        const Image frame = r->render(source, {.zoom = {1.0 + 0.004 * i, 0.5, 0.5}});
        double sx = 0, n = 0;
        for (int y = 30; y < 100; ++y)
            for (int x = 200; x < 280; ++x) {
                const double w = std::max(0, at(frame, x, y).luma() - 40);
                sx += w * x;
                n += w;
            }
        ASSERT_GT(n, 0);
        xs.push_back(sx / n);
    }
    std::vector<double> steps;
    for (size_t i = 1; i < xs.size(); ++i)
        steps.push_back(xs[i] - xs[i - 1]);
    const double expected = 0.004 * (230.5 - 160); // pixels per frame at this zoom speed
    for (size_t i = 0; i < steps.size(); ++i) {
        EXPECT_NEAR(steps[i], expected, 0.05) << "frame " << i;
        if (i > 0) {
            EXPECT_LT(std::abs(steps[i] - steps[i - 1]), 0.05) << "frame " << i;
        }
    }
}

// The pointer where the moment says, a touch, a hidden pointer, a streak behind a fast one
// and a smaller pointer while pressed.
TEST(StageRenderer, PointerIsDrawnWhereTheMomentSaysStreaksAndShrinksWhenPressed)
{
    auto r = renderer({.cursorSize = 200}, {320, 180}, {320, 180});
    const Image source = solid(320, 180, {150, 150, 150, 255});
    const Image bare = r->render(source, {});
    const Rect card = r->geometry().screenRect;
    for (auto [fx, fy] : {std::pair{0.25, 0.3}, {0.7, 0.6}}) {
        const Image frame = r->render(source, {.cursor = StageMoment::Cursor{fx, fy, fx, fy, 1, 0}});
        const int tx = static_cast<int>(card.x + fx * card.width);
        const int ty = static_cast<int>(180 - (card.y + (1 - fy) * card.height));
        // Dark arrow body just below and right of the tip; untouched far away.
        int dark = 0;
        for (int y = ty; y < ty + 14; ++y)
            for (int x = tx; x < tx + 8; ++x)
                dark += at(frame, x, y).luma() < 60;
        EXPECT_GT(dark, 12);
        EXPECT_EQ(distance(at(frame, tx - 40, ty - 30), at(bare, tx - 40, ty - 30)), 0);
    }
    // A touch on a phone recording shows where the finger is.
    const StageMoment touched{.touch = StageMoment::Touch{0.7, 0.6}};
    const int touchX = static_cast<int>(card.x + 0.7 * card.width), touchY = static_cast<int>(180 - (card.y + 0.4 * card.height));
    EXPECT_GT(changed(r->render(source, touched), bare, touchX - 12, touchY - 12, touchX + 12, touchY + 12, 10), 60);
    // A hidden pointer draws nothing.
    const Image hidden = r->render(source, {.cursor = StageMoment::Cursor{0.5, 0.5, 0.5, 0.5, 0, 0}});
    EXPECT_EQ(distance(at(hidden, 162, 95), at(bare, 162, 95)), 0);
    // Behind a pointer that moved fast (to its left) only the streak draws; pressed, it shrinks.
    const Image still = r->render(source, {.cursor = StageMoment::Cursor{0.6, 0.5, 0.6, 0.5, 1, 0}});
    const Image streak = r->render(source, {.cursor = StageMoment::Cursor{0.6, 0.5, 0.3, 0.5, 1, 0}});
    const Image pressed = r->render(source, {.cursor = StageMoment::Cursor{0.6, 0.5, 0.6, 0.5, 1, 1}});
    const int left = static_cast<int>(card.x + 0.6 * card.width) - 10;
    EXPECT_EQ(changed(still, bare, left - 70, 60, left, 120, 10), 0);
    EXPECT_GT(changed(streak, bare, left - 70, 60, left, 120, 10), 20);
    EXPECT_LT(changed(pressed, bare, 0, 0, 320, 180), changed(still, bare, 0, 0, 320, 180));
}

TEST(StageRenderer, BlurAndPixelateBoxesChangeOnlyTheirInside)
{
    auto r = renderer(flat, {320, 180}, {320, 180});
    for (auto style : {MaskRegion::Style::blur, MaskRegion::Style::pixelate}) {
        // Blur flattens a checkerboard; pixelate turns a ramp into steps.
        const Image source = style == MaskRegion::Style::blur
            ? checker(320, 180, 3)
            : picture(320, 180, [](int x, int y) { return Rgba{x * 3 / 4, y, 255 - x * 3 / 4, 255}; });
        const Image bare = r->render(source, {});
        const Image frame = r->render(source, {.masks = {{.x = 0.25, .y = 0.25, .w = 0.5, .h = 0.5, .style = style}}});
        if (style == MaskRegion::Style::blur) {
            EXPECT_LT(detail(frame, 100, 60, 220, 120), detail(bare, 100, 60, 220, 120) / 4);
        }
        EXPECT_GT(changed(frame, bare, 80, 45, 240, 135, 2), 2000);
        EXPECT_EQ(changed(frame, bare, 0, 0, 320, 44, 0) + changed(frame, bare, 0, 136, 320, 180, 0)
                + changed(frame, bare, 0, 45, 79, 135, 0) + changed(frame, bare, 241, 45, 320, 135, 0),
            0);
        EXPECT_DOUBLE_EQ(detail(frame, 0, 0, 70, 40), detail(bare, 0, 0, 70, 40));
        if (style == MaskRegion::Style::pixelate) {
            // Blocks: max(0.09 × 90, 10) = 10 pixels, so 160 pixels of a row make 16 or 17 runs.
            int runs = 1;
            for (int x = 81; x < 240; ++x)
                runs += distance(at(frame, x, 90), at(frame, x - 1, 90)) > 0;
            EXPECT_LE(runs, 18);
            EXPECT_GE(runs, 15);
        }
    }
}

TEST(StageRenderer, ClickEffectsForEveryStyleAndTintGrowFadeAndGo)
{
    const Image source = solid(320, 180, {60, 60, 60, 255});
    for (ClickStyle style : allClickStyles) {
        // The animation: nothing outside its life; it grows and fades within it.
        EXPECT_EQ(clickAnim(style, -0.1), ClickAnim{});
        EXPECT_EQ(clickAnim(style, 10), ClickAnim{});
        if (style != ClickStyle::none) {
            EXPECT_GT(clickAnim(style, 0.1).alpha, 0);
            EXPECT_LE(clickAnim(style, 0.05).grow, clickAnim(style, 0.2).grow);
            EXPECT_LT(clickAnim(style, 0.44).alpha, clickAnim(style, 0.12).alpha);
        }
        for (ClickTint tint : allClickTints) {
            auto r = renderer({.clickStyle = style, .clickTint = tint}, {320, 180}, {320, 180});
            const Image frame = r->render(source, {.clicks = {{0.5, 0.5, 0.12}}});
            const Image bare = r->render(source, {});
            Rgba strongest;
            int most = 0;
            for (int y = 60; y < 120; ++y)
                for (int x = 120; x < 200; ++x)
                    if (const int d = distance(at(frame, x, y), at(bare, x, y)); d > most) {
                        most = d;
                        strongest = at(frame, x, y);
                    }
            const int drawn = changed(frame, bare, 120, 60, 200, 120);
            if (style == ClickStyle::none) {
                EXPECT_EQ(drawn, 0);
                continue;
            }
            EXPECT_GT(drawn, 20) << clickStyleText(style) << " " << clickTintText(tint);
            if (tint == ClickTint::cobalt) {
                EXPECT_GT(strongest.b, strongest.r + 40);
            }
            if (tint == ClickTint::amber) {
                EXPECT_GT(strongest.r, strongest.b + 40);
            }
            // Gone once its life is over.
            const Image later = r->render(source, {.clicks = {{0.5, 0.5, 5}}});
            EXPECT_EQ(detail(later, 120, 60, 200, 120), detail(bare, 120, 60, 200, 120));
        }
    }
}

TEST(StageRenderer, CameraBubbleInItsCornerMirroredAndRinged)
{
    // Left half red, right half blue: mirrored, the bubble shows blue on its left.
    const Image camera = picture(64, 48, [](int x, int) { return x < 32 ? Rgba{30, 30, 230, 255} : Rgba{230, 30, 30, 255}; });
    for (CameraShape shape : allCameraShapes)
        for (bool mirror : {true, false}) {
            auto r = renderer({}, {320, 180}, {320, 180},
                {.camera = CameraBubble{shape, PlimLook::BubbleCorner::br, std::nullopt, 1, mirror, true}});
            const Image frame = r->render(solid(320, 180, {90, 90, 90, 255}), {}, std::nullopt, camera);
            // 0.24 × 180 = 43.2 wide, 7.2 from the bottom-right corner.
            const double d = 43.2, cx = 320 - 7.2 - d / 2, cy = 180 - 7.2 - d / 2;
            const Rgba left = at(frame, static_cast<int>(cx - d / 4), static_cast<int>(cy));
            const Rgba right = at(frame, static_cast<int>(cx + d / 4), static_cast<int>(cy));
            EXPECT_EQ(left.b > left.r, mirror);
            EXPECT_EQ(right.b > right.r, !mirror);
            // The square's corner is outside a circle and inside a card.
            const Rgba corner = at(frame, static_cast<int>(cx - d / 2 + 3.5), static_cast<int>(cy - d / 2 + 3.5));
            EXPECT_EQ(std::max(corner.r, corner.b) > 150, shape == CameraShape::card);
        }
    // A camera picture carried by the moment shows too; without any picture there is no bubble.
    auto r = renderer({}, {320, 180}, {320, 180}, {.camera = CameraBubble{}});
    auto pixels = std::make_shared<std::vector<uint8_t>>(16 * 16 * 4);
    for (size_t i = 0; i < pixels->size(); i += 4)
        (*pixels)[i + 1] = 220, (*pixels)[i + 3] = 255; // green
    const StageMoment m{.cameraFrame = CameraPicture{16, 16, 64, pixels}};
    const Image grey = solid(320, 180, {90, 90, 90, 255});
    const int cx = static_cast<int>(320 - 7.2 - 21.6), cy = static_cast<int>(180 - 7.2 - 21.6);
    EXPECT_GT(at(r->render(grey, m), cx, cy).g, 180);
    EXPECT_LT(at(r->render(grey, {}), cx, cy).g, 120);
}

TEST(StageRenderer, VerticalShapePutsTheBubbleLowWithCaptionAndKeycapsAboveIt)
{
    auto r = renderer({}, {360, 640}, {320, 180}, {.shape = PlimLook::Shape::vertical, .camera = CameraBubble{}});
    const Image source = solid(320, 180, {200, 200, 200, 255});
    const Image camera = solid(40, 40, {20, 200, 20, 255});
    const Image bare = r->render(source, {}, std::nullopt, camera);
    const Image frame
        = r->render(source, {.keycaps = {{1000, "⌘S"}}, .keycapTime = 1.2, .caption = "Save it"}, std::nullopt, camera);
    const Rect bubble = ReframeMath::bubbleRect({360, 640});
    const int bubbleTop = static_cast<int>(640 - bubble.maxY());
    const Rgba middle = at(frame, static_cast<int>(bubble.midX()), static_cast<int>(640 - bubble.midY()));
    EXPECT_GT(middle.g, 150);
    EXPECT_LT(middle.r, 80);
    // Both sit above the bubble and below the middle of the picture.
    EXPECT_GT(changed(frame, bare, 0, 320, 360, bubbleTop), 200);
    EXPECT_EQ(changed(frame, bare, 0, bubbleTop, 360, 640), 0);
    EXPECT_EQ(changed(frame, bare, 0, 0, 360, 300), 0);
}

TEST(StageRenderer, KeycapsAppearAtTheirTime)
{
    auto r = renderer(StageSpec{}, {640, 360}, {320, 180});
    const Image source = solid(320, 180, {200, 200, 200, 255});
    const Image bare = r->render(source, {});
    StageMoment m{.keycaps = {{2000, "⌘S"}, {2200, "⏎"}}, .keycapTime = 2.4};
    const Image frame = r->render(source, m);
    EXPECT_GT(changed(frame, bare, 220, 260, 420, 360), 300);
    EXPECT_EQ(changed(frame, bare, 0, 0, 640, 250), 0);
    // Long after their linger they are gone.
    m.keycapTime = 9;
    EXPECT_EQ(changed(r->render(source, m), bare, 0, 0, 640, 360), 0);

    // A hundred distinct shortcuts, two new in each frame: the renderer's text cache fills
    // and is emptied along the way, and every frame still matches a fresh renderer's.
    for (int n = 0; n < 100; n += 2) {
        const StageMoment many{
            .keycaps = {{n * 100, "⌃" + std::to_string(n)}, {n * 100 + 50, "⌥" + std::to_string(n + 1)}},
            .keycapTime = n * 0.1 + 0.3};
        const Image drawn = r->render(source, many);
        const Image fresh = renderer(StageSpec{}, {640, 360}, {320, 180})->render(source, many);
        ASSERT_EQ(changed(drawn, fresh, 0, 0, 640, 360, 0), 0) << "shortcuts " << n << " and " << n + 1;
    }
}

TEST(StageRenderer, CaptionInEachLookAndPlace)
{
    const Image source = solid(320, 180, {120, 120, 130, 255});
    for (auto look : {StageSpec::CaptionLook::pill, StageSpec::CaptionLook::bold, StageSpec::CaptionLook::minimal,
             StageSpec::CaptionLook::light})
        for (auto place : {StageSpec::CaptionPlace::bottom, StageSpec::CaptionPlace::top}) {
            auto r
                = renderer({.captionLook = look, .captionSize = StageSpec::CaptionSize::large, .captionPlace = place},
                    {640, 360}, {320, 180});
            const Image frame = r->render(source, {.caption = "Click Save to keep it"});
            const Image bare = r->render(source, {});
            const int top = place == StageSpec::CaptionPlace::top ? 0 : 240;
            const int other = place == StageSpec::CaptionPlace::top ? 240 : 0;
            EXPECT_GT(changed(frame, bare, 120, top, 520, top + 120), 400);
            EXPECT_EQ(changed(frame, bare, 0, other, 640, other + 120), 0);
            // What the line changed is mostly dark on a dark box, mostly light on a light one.
            double sum = 0;
            int n = 0;
            for (int y = top; y < top + 120; ++y)
                for (int x = 120; x < 520; ++x)
                    if (distance(at(frame, x, y), at(bare, x, y)) > 30)
                        sum += at(frame, x, y).luma(), ++n;
            if (look == StageSpec::CaptionLook::pill) {
                EXPECT_LT(sum / std::max(n, 1), 100);
            } else if (look == StageSpec::CaptionLook::light) {
                EXPECT_GT(sum / std::max(n, 1), 180);
            }
        }
}

TEST(StageRenderer, TransitionsDarkenBlurAndPunch)
{
    auto r = renderer({.paddingPX = 0, .cornersPX = 0, .shadowPercent = 0}, {320, 180}, {320, 180});
    const Image source = checker(320, 180, 4);
    const Image bare = r->render(source, {});
    auto meanLuma = [](const Image& f) { return lumaSum(f, 0, 0, f.width, f.height, 3); };
    auto with = [&](TransitionSpec::Kind kind, double phase) {
        return r->render(source, {.transition = EditPlan::TransitionPhase{kind, phase}});
    };
    const Image half = with(TransitionSpec::Kind::dipToBlack, 0.5);
    EXPECT_NEAR(meanLuma(half) / meanLuma(bare), 0.5, 0.03);
    EXPECT_LT(meanLuma(with(TransitionSpec::Kind::dipToBlack, 1)), 1);
    const Image backdrop = with(TransitionSpec::Kind::dipToBackdrop, 1);
    EXPECT_LT(distance(at(backdrop, 160, 90), at(r->ground(), 160, 90)), 4);
    const Image blurred = with(TransitionSpec::Kind::blur, 1);
    EXPECT_LT(detail(blurred, 0, 0, 320, 180), detail(bare, 0, 0, 320, 180) / 4);
    const Image punched = with(TransitionSpec::Kind::punch, 1);
    EXPECT_NE(detail(punched, 100, 60, 220, 120), detail(bare, 100, 60, 220, 120));
    EXPECT_GT(meanLuma(punched), meanLuma(bare));
}

TEST(StageRenderer, BackdropsOfEveryKind)
{
    testkit::TempDir dir;
    // A PNG backdrop: a plain green picture.
    writePng(solid(64, 36, {30, 180, 60, 255}), dir / "green.png");
    testkit::writeText(dir / "broken.png", "not a picture");

    using B = StageSpec::Backdrop;
    // {name, look, the corner's colour when known exactly}
    std::vector<std::tuple<std::string, StageSpec, std::optional<Rgba>>> cases;
    for (B::Named n : B::allNamed)
        cases.push_back({std::string(backdropNameText(n)), {.backdrop = B::named(n)},
            n == B::Named::wallpaper ? std::optional(Rgba{30, 180, 60, 255}) : std::nullopt});
    for (const char* look : {"dawn", "lagoon", "meadow", "ember", "graphite", "paper", "desk"})
        cases.push_back({std::string("look_") + look, {.card = StageSpec::CardLook{.backdrop = look}}, std::nullopt});
    cases.push_back({"solid", {.backdrop = B::solid("#336699")}, Rgba{0x99, 0x66, 0x33, 255}});
    cases.push_back({"duo", {.backdrop = B::duo("#ff0000", "#0000ff")}, std::nullopt});
    cases.push_back({"image", {.backdrop = B::image((dir / "green.png").string(), 0)}, Rgba{30, 180, 60, 255}});

    std::set<std::tuple<int, int, int>> corners;
    for (const auto& [name, stage, known] : cases) {
        auto r = renderer(stage, {160, 90}, {160, 90}, {.wallpaper = dir / "green.png"});
        const Rgba corner = at(r->ground(), 1, 1);
        EXPECT_EQ(corner.a, 255) << name;
        if (known) {
            EXPECT_LT(distance(corner, *known), 4) << name;
        }
        corners.insert({corner.r, corner.g, corner.b});
    }
    // Every backdrop has its own colour, except graphite named both ways and the same
    // picture as image and wallpaper.
    EXPECT_GE(corners.size(), cases.size() - 2);

    // A picture that cannot be read: the default gradient, a notice, the file untouched.
    LogCapture log;
    auto r = renderer({.backdrop = B::image((dir / "broken.png").string(), 4)}, {160, 90}, {160, 90});
    auto d = renderer(StageSpec{}, {160, 90}, {160, 90});
    EXPECT_LT(distance(at(r->ground(), 1, 1), at(d->ground(), 1, 1)), 4);
    EXPECT_TRUE(log.contains("broken.png is not a PNG picture."));
    EXPECT_EQ(testkit::readText(dir / "broken.png"), "not a picture");

    // JPEG and WebP pictures are read through FFmpeg.
    for (const char* name : {"blue.jpg", "blue.webp"}) {
        ASSERT_EQ(testkit::runCommand({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "color=c=0x1E3CB4:s=64x36", "-frames:v",
                      "1", (dir / name).string()})
                      .status,
            0);
        auto pictured = renderer({.backdrop = B::image((dir / name).string(), 0)}, {160, 90}, {160, 90});
        EXPECT_LT(distance(at(pictured->ground(), 1, 1), Rgba{180, 60, 30, 255}), 12) << name;
    }
    testkit::writeText(dir / "broken.jpg", "not a picture");
    renderer({.backdrop = B::image((dir / "broken.jpg").string(), 0)}, {160, 90}, {160, 90});
    EXPECT_TRUE(log.contains("broken.jpg could not be read as a picture."));
    EXPECT_EQ(testkit::readText(dir / "broken.jpg"), "not a picture");
}

TEST(StageRenderer, SpotlightAndZoomBlurFollowThePointerAndTheZoom)
{
    const Image source = checker(320, 180, 2);
    auto r = renderer(
        {.paddingPX = 0, .cornersPX = 0, .cursorSpotlight = true}, {320, 180}, {320, 180}, {.zoomBlur = true});
    const Image sharp = r->render(source, {.zoom = {1.5, 0.3, 0.5}});
    const Image blurred = r->render(source, {.zoom = {1.5, 0.3, 0.5}, .zoomVelocity = 2});
    // Far from the zoom centre the picture smears; at the centre it stays put.
    EXPECT_LT(detail(blurred, 250, 0, 320, 60), detail(sharp, 250, 0, 320, 60) * 0.8);

    const StageMoment lit{.cursor = StageMoment::Cursor{0.2, 0.5, 0.2, 0.5, 0, 0}};
    const Image frame = r->render(source, lit);
    const Image plain = renderer(flat, {320, 180}, {320, 180})->render(source, lit);
    EXPECT_NEAR(lumaSum(frame, 54, 60, 74, 120) / lumaSum(plain, 54, 60, 74, 120), 1, 0.06);
    EXPECT_LT(lumaSum(frame, 280, 60, 300, 120) / lumaSum(plain, 280, 60, 300, 120), 0.6);
}

// Plain, zoomed and spotlit frames over a smooth backdrop, in the pixel look, a card look
// and the vertical layout, at fractional zooms and centres (the demo's own among them):
// every pixel opaque, and down the backdrop at the left edge no row stands out from the rows
// beside it (a seam where bands of the frame meet).
TEST(StageRenderer, FramesAreOpaqueWithoutSeamsWhereTheBackdropIsSmooth)
{
    const StageSpec pixels{.cursorSpotlight = true};
    const StageSpec card{.cursorSpotlight = true, .card = StageSpec::CardLook{0.06, 0.02, 1.0, "dawn"}};
    const Image source = solid(320, 200, {200, 200, 200, 255});
    for (const auto& [look, stage, canvas, shape] :
        std::vector<std::tuple<const char*, StageSpec, Size, PlimLook::Shape>>{
            {"pixels", pixels, {432, 270}, PlimLook::Shape::landscape},
            {"card", card, {432, 270}, PlimLook::Shape::landscape},
            {"card_odd", card, {641, 359}, PlimLook::Shape::landscape},
            {"vertical", card, {270, 480}, PlimLook::Shape::vertical}}) {
        auto r = renderer(stage, canvas, {320, 200}, {.shape = shape});
        std::vector<std::pair<std::string, StageMoment>> moments{{"plain", {}}};
        // The demo's three zoom centres on their way in to 2.4, and others near the edges.
        for (ZoomState zoom : {ZoomState{1.07, 0.221875, 0.2975}, ZoomState{1.55, 0.768359375, 0.46875},
                 ZoomState{2.4, 0.4953125, 0.15625}, ZoomState{1.23, 0.437, 0.611}, ZoomState{1.337, 0.9, 0.07},
                 ZoomState{2.071, 0.13, 0.88}})
            moments.emplace_back("zoom" + std::to_string(zoom.scale), StageMoment{.zoom = zoom});
        const StageMoment::Cursor lit{0.313, 0.571, 0.313, 0.571, 0, 0};
        moments.emplace_back("lit", StageMoment{.cursor = lit});
        moments.emplace_back("both", StageMoment{.zoom = moments[1].second.zoom, .cursor = lit});
        for (const auto& [name, moment] : moments) {
            for (int pass = 0; pass < 2; ++pass) { // a fresh frame, then a reused one
                const Image frame = r->render(source, moment);
                int translucent = 0;
                for (int y = 0; y < frame.height; ++y)
                    for (int x = 0; x < frame.width; ++x)
                        translucent += at(frame, x, y).a != 255;
                EXPECT_EQ(translucent, 0) << look << " " << name;
                // The card on the picture, with its edge's blend: no backdrop there.
                const StageGeometry& g = r->geometry();
                const Rect onCanvas = g.window ? *g.window : g.zoomTransform(moment.zoom).apply(g.screenRect);
                const Rect cardRows{onCanvas.x - 2, frame.height - onCanvas.maxY() - 2, onCanvas.width + 4,
                    onCanvas.height + 4};
                for (int y = 1; y + 1 < frame.height; ++y)
                    for (int x = 0; x < 6; ++x) {
                        if (x + 1 >= cardRows.minX() && x <= cardRows.maxX() && y + 1 >= cardRows.minY()
                            && y - 1 <= cardRows.maxY())
                            continue;
                        const Rgba above = at(frame, x, y - 1), here = at(frame, x, y), below = at(frame, x, y + 1);
                        ASSERT_LE(std::abs(2 * here.luma() - above.luma() - below.luma()), 4)
                            << look << " " << name << ": row " << y << " at x " << x << " differs from its neighbours";
                    }
            }
        }
    }
}

TEST(StageRenderer, ShapesFramingAndPhoneBody)
{
    const Image source = solid(90, 160, {30, 160, 220, 255});
    for (auto [name, canvas, framed] : std::vector<std::tuple<const char*, Size, bool>>{
             {"square", {240, 240}, false}, {"phone", {320, 180}, true}, {"phone_vertical", {180, 320}, true}}) {
        const auto shape = canvas.width == canvas.height ? PlimLook::Shape::square : PlimLook::Shape::landscape;
        auto r = renderer({}, canvas, {90, 160}, {.shape = shape, .deviceFramed = framed});
        const Image frame = r->render(source, {});
        const int cx = static_cast<int>(canvas.width / 2), cy = static_cast<int>(canvas.height / 2);
        EXPECT_LT(distance(at(frame, cx, cy), {30, 160, 220, 255}), 6) << name;
        if (framed) {
            // The dark body around the screen and the island near its top.
            const DeviceFrameGeometry device(canvas, {90, 160}, StageSpec{});
            const int bodyX = static_cast<int>(device.screen.minX() - device.bezel / 2);
            EXPECT_LT(at(frame, bodyX, cy).luma(), 40) << name;
            const int islandY = static_cast<int>(canvas.height - device.island.midY());
            EXPECT_LT(at(frame, static_cast<int>(device.island.midX()), islandY).luma(), 20) << name;
        }
    }
    // A stage transform moves the whole stage: shifted right by 40, the card's left edge follows.
    auto r = renderer(StageSpec{}, {320, 180}, {320, 180});
    const Image wide = solid(320, 180, {30, 160, 220, 255});
    const Image base = r->render(wide, {});
    const Image moved = r->render(wide, {}, Affine::translation(40, 0));
    const int edge = static_cast<int>(r->geometry().screenRect.minX()) + 2;
    EXPECT_LT(distance(at(base, edge, 90), {30, 160, 220, 255}), 6);
    EXPECT_GT(distance(at(moved, edge, 90), {30, 160, 220, 255}), 60);
    EXPECT_LT(distance(at(moved, edge + 40, 90), {30, 160, 220, 255}), 6);
}

// A landscape recording in a 9:16 canvas is drawn in the window StageGeometry places (whose
// framing at every zoom and focus its own test checks): the part of the picture where the
// pointer is, and a zoom magnifies it inside the window while the backdrop stays as it was.
TEST(StageRenderer, VerticalLayoutFramesTheCardAndTheZoomInItsWindow)
{
    auto r = renderer({}, {180, 320}, {320, 200}, {.shape = PlimLook::Shape::vertical});
    ASSERT_TRUE(r->geometry().window);
    constexpr Rgba blue{220, 40, 40, 255};
    const Image source = picture(320, 200, [](int x, int) { return x < 160 ? red : blue; });
    // Pointers faded out: not drawn.
    const StageMoment::Cursor right{0.9, 0.5, 0.9, 0.5, 0, 0};
    const Image atLeft = r->render(source, {.cursor = StageMoment::Cursor{0.1, 0.5, 0.1, 0.5, 0, 0}});
    const Image atRight = r->render(source, {.cursor = right});
    const Image magnified = r->render(source, {.zoom = {2, 0.75, 0.5}, .cursor = right});
    const Rect& w = *r->geometry().window;
    const int top = static_cast<int>(std::ceil(320 - w.maxY())) + 4, bottom = static_cast<int>(320 - w.minY()) - 4;
    const int x0 = static_cast<int>(std::ceil(w.minX())) + 4, x1 = static_cast<int>(w.maxX()) - 4;
    EXPECT_LT(distance(at(atLeft, 90, (top + bottom) / 2), red), 20);
    EXPECT_LT(distance(at(atRight, 90, (top + bottom) / 2), blue), 20);
    EXPECT_EQ(changed(atRight, magnified, 0, bottom + 8, 180, 320, 4), 0);
    EXPECT_EQ(changed(atRight, magnified, 0, 0, 180, top - 8, 4), 0);
    int uncovered = 0;
    for (int y = top; y < bottom; ++y)
        for (int x = x0; x < x1; ++x)
            uncovered += distance(at(magnified, x, y), blue) >= 20;
    EXPECT_EQ(uncovered, 0) << "zoomed in on the right quarter, the magnified picture covers the window";
}

TEST(StageRenderer, CameraChoicesComeFromThePlan)
{
    const CameraBubble defaults{CameraShape::circle, PlimLook::BubbleCorner::tl, std::nullopt, 1, true, true};
    const std::pair<EditPlan, CameraBubble> cases[] = {
        {{}, defaults},
        {{.cameraCorner = "br",
             .cameraScale = 1.5,
             .cameraShape = "card",
             .cameraMirror = false,
             .cameraBorder = false},
            {CameraShape::card, PlimLook::BubbleCorner::br, std::nullopt, 1.5, false, false}},
        {{.cameraCorner = "nowhere", .cameraX = 0.25, .cameraY = 0.75, .cameraScale = -2, .cameraShape = "hexagon"},
            {CameraShape::circle, PlimLook::BubbleCorner::tl, Point{0.25, 0.75}, 1, true, true}},
        {{.cameraX = 3.0, .cameraY = NAN, .cameraScale = 100},
            {CameraShape::circle, PlimLook::BubbleCorner::tl, std::nullopt, 2.5, true, true}},
    };
    for (const auto& [plan, expected] : cases)
        EXPECT_EQ(CameraBubble::from(plan, PlimLook::BubbleCorner::tl), expected);
}

TEST(StageRenderer, ReframeKeepsTheRecordingAtItsOwnSizeAndAnUnusableCanvasIsRefused)
{
    auto r = renderer({.clickStyle = ClickStyle::ring}, {160, 90}, {160, 90}, {.reframe = true});
    const Image source = checker(160, 90, 5);
    const Image frame = r->render(source, {});
    for (auto [x, y] : {std::pair{0, 0}, {159, 89}, {80, 45}, {3, 87}})
        EXPECT_EQ(distance(at(frame, x, y), at(source, x, y)), 0);
    // Effects still draw on it.
    const Image grey = solid(160, 90, {90, 90, 90, 255});
    EXPECT_GT(changed(r->render(grey, {.clicks = {{0.5, 0.5, 0.1}}}), r->render(grey, {}), 0, 0, 160, 90), 10);

    // A canvas that cannot be drawn is refused with a sentence.
    for (Size canvas : {Size{0, 100}, Size{100, -1}, Size{NAN, 100}, Size{100000, 100}}) {
        auto made = StageRenderer::create(StageSpec{}, canvas, {});
        ASSERT_FALSE(made.has_value());
        EXPECT_NE(made.error().sentence.find("nothing was rendered"), std::string::npos);
    }
}

} // namespace
} // namespace plim
