#include "stage/device_frame.h"
#include "stage/reframe_math.h"
#include "stage/stage_geometry.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <tuple>

namespace plim {
namespace {

constexpr double eps = 1e-6;
const double notANumber = std::numeric_limits<double>::quiet_NaN();
const double infinite = std::numeric_limits<double>::infinity();

void expectRectNear(const Rect& actual, const Rect& expected)
{
    EXPECT_NEAR(actual.x, expected.x, eps);
    EXPECT_NEAR(actual.y, expected.y, eps);
    EXPECT_NEAR(actual.width, expected.width, eps);
    EXPECT_NEAR(actual.height, expected.height, eps);
}

void expectPointNear(Point actual, Point expected)
{
    EXPECT_NEAR(actual.x, expected.x, eps);
    EXPECT_NEAR(actual.y, expected.y, eps);
}

// The part of the canvas that a transform brings onto the output.
Rect visibleRegion(const Affine& t, Size canvas)
{
    return {-t.tx / t.a, -t.ty / t.d, canvas.width / t.a, canvas.height / t.d};
}

StageSpec pxSpec(int padding, int corners)
{
    return {.paddingPX = padding, .cornersPX = corners};
}

// The pixel lengths are ignored under a card look.
StageSpec cardSpec(double padding, double corners)
{
    return {.paddingPX = 0, .cornersPX = 99, .card = StageSpec::CardLook{padding, corners, 1.0, std::nullopt}};
}

TEST(StageGeometryCard, ScreenCardLayout)
{
    const double s = 608.0 / 1080, sw = 1168.0 / 3000, su = 912.0 / 1080;
    const StageSpec plain;
    const Rect fill{(1920 - 1920 * su) / 2, 84, 1920 * su, 912}; // a 16:9 picture on 1920 × 1080
    // {canvas, content, look, the screen card, its corner radius}
    const std::vector<std::tuple<Size, Size, StageSpec, Rect, double>> rows = {
        {{1280, 720}, {1920, 1080}, plain, {(1280 - 1920 * s) / 2, 56, 1920 * s, 608}, 10},
        {{1280, 720}, {3000, 1000}, plain, {56, (720 - 1000 * sw) / 2, 1168, 1000 * sw}, 10}, // wider
        {{1280, 720}, {1000, 2000}, plain, {488, 56, 304, 608}, 10}, // taller
        // PX lengths scale with the canvas width.
        {{1280, 800}, {1600, 1000}, pxSpec(40, 16), {64, 40, 1152, 720}, 16},
        {{3840, 2400}, {1600, 1000}, pxSpec(40, 16), {192, 120, 3456, 2160}, 48},
        {{1080, 1080}, {1000, 1000}, pxSpec(40, 16), {33.75, 33.75, 1012.5, 1012.5}, 13.5},
        // Padding is held at 35% of the shorter side.
        {{1280, 720}, {1280, 720}, pxSpec(500, 10), {448, 252, 384, 216}, 10},
        {{1000, 2000}, {1000, 2000}, cardSpec(0.9, 0), {350, 700, 300, 600}, 0},
        // A card look: padding of the shorter side, corners of the card's width.
        {{1920, 1080}, {1920, 1080}, cardSpec(0.1, 0.02), {192, 108, 1536, 864}, 1536 * 0.02},
        {{1080, 1920}, {0.5, 2}, cardSpec(0.05, 0.02), {313.5, 54, 453, 1812}, 453 * 0.02}, // not framed
        // Unusable content stands in as the canvas size; an unusable canvas gives an empty stage.
        {{1920, 1080}, {0, 0}, plain, fill, 15},
        {{1920, 1080}, {-5, 100}, plain, fill, 15},
        {{1920, 1080}, {notANumber, 10}, plain, fill, 15},
        {{1920, 1080}, {100, infinite}, plain, fill, 15},
        {{0, 720}, {1920, 1080}, plain, {}, 0},
        {{notANumber, notANumber}, {1920, 1080}, plain, {}, 0},
        {{-1280, 720}, {1920, 1080}, plain, {}, 0},
    };
    for (size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE(i);
        const auto& [canvas, content, stage, screen, corner] = rows[i];
        StageGeometry g(canvas, content, stage, false);
        expectRectNear(g.screenRect, screen);
        EXPECT_NEAR(g.cornerRadius, corner, eps);
        EXPECT_EQ(g.cardCamera, stage.card.has_value());
        EXPECT_EQ(g.cameraCard, g.screenRect);
        EXPECT_TRUE(g.zoomTransform({2, 0.5, 0.5}).isIdentity() == !canvas.isUsable());
    }

    // A device-framed card look keeps the phone's screen in view (which differs here, as the
    // frame raises a picture under a pixel wide to one); without a card look the screen card
    // stays the camera card.
    StageGeometry framed({1080, 1920}, {0.5, 2}, cardSpec(0.05, 0.02), true);
    EXPECT_EQ(framed.cameraCard, DeviceFrameGeometry({1080, 1920}, {0.5, 2}, cardSpec(0.05, 0.02)).screen);
    EXPECT_NE(framed.cameraCard, framed.screenRect);
    StageGeometry plainFramed({1080, 1920}, {1170, 2532}, plain, true);
    EXPECT_EQ(plainFramed.cameraCard, plainFramed.screenRect);
}

TEST(StageGeometryCard, PicturePositionsFlipOntoTheCanvas)
{
    StageGeometry g({1280, 720}, {1920, 1080}, StageSpec{}, false);
    const Rect& s = g.screenRect;
    expectPointNear(g.screenPoint(0, 0), {s.minX(), s.maxY()});
    expectPointNear(g.screenPoint(1, 1), {s.maxX(), s.minY()});
    expectPointNear(g.screenPoint(0.25, 0.75), {s.x + 0.25 * s.width, s.y + 0.25 * s.height});
    expectRectNear(g.screenRectOf({0.1, 0, 0.5, 0.25}),
        {s.x + 0.1 * s.width, s.maxY() - 0.25 * s.height, 0.5 * s.width, 0.25 * s.height});
    expectRectNear(g.screenRectOf({0, 0, 1, 1}), s);
    expectPointNear(StageGeometry::focusOn(s, {2, 0.3, 0.6}), g.screenPoint(0.3, 0.6));
}

TEST(StageGeometryZoom, KeepsTheFocusButNeverUncoversTheOutput)
{
    StageGeometry g({1280, 720}, {1440, 900}, StageSpec{}, false);
    for (double scale : {1.0, 1.0001, 0.5, 0.0, -2.0, notANumber, infinite})
        EXPECT_TRUE(g.zoomTransform({scale, 0.3, 0.7}).isIdentity()) << scale;
    EXPECT_FALSE(g.zoomTransform({1.0002, 0.3, 0.7}).isIdentity());

    // With room around it the focus stays where it is.
    for (ZoomState zoom : {ZoomState{2, 0.5, 0.5}, ZoomState{1.5, 0.3, 0.6}, ZoomState{1.8, 0.6, 0.35}}) {
        Affine t = g.zoomTransform(zoom);
        EXPECT_TRUE(t.a == zoom.scale && t.d == zoom.scale);
        Point focus = g.screenPoint(zoom.centerX, zoom.centerY);
        expectPointNear(t.apply(focus), focus);
    }

    const Rect whole{0, 0, 1280, 720};
    for (double scale : {1.2, 2.0, 3.5})
        for (double cx : {-0.5, 0.0, 0.1, 0.5, 0.9, 1.0, 1.7})
            for (double cy : {-0.5, 0.0, 0.2, 0.5, 0.8, 1.0, 1.5})
                EXPECT_TRUE(g.zoomTransform({scale, cx, cy}).apply(whole).contains(whole, eps))
                    << scale << " " << cx << " " << cy;
    // The card's bottom-right corner has room inside the padding; a centre past it clamps.
    Affine corner = g.zoomTransform({2, 1, 1});
    EXPECT_NEAR(corner.tx, -g.screenRect.maxX(), eps);
    EXPECT_NEAR(corner.ty, -g.screenRect.minY(), eps);
    EXPECT_EQ(g.zoomTransform({2, 1.7, 1.5}), (Affine{2, 0, 0, 2, -1280, 0}));
    EXPECT_EQ(g.zoomTransform({2, notANumber, notANumber}), g.zoomTransform({2, 0.5, 0.5}));

    // On a full-canvas screen the top-left quarter fills the output.
    StageGeometry full({1280, 720}, {1280, 720}, pxSpec(0, 0), false);
    EXPECT_EQ(full.zoomTransform({2, 0, 0}), (Affine{2, 0, 0, 2, 0, -720}));

    StageGeometry card({1920, 1080}, {1920, 1080}, cardSpec(0.1, 0.02), false);
    const ZoomState zoom{1.6, 0.2, 0.3};
    const Point focus = StageGeometry::focusOn(card.cameraCard, zoom);
    EXPECT_EQ(card.zoomTransform(zoom), StageGeometry::cardCameraTransform(1.6, focus, card.cameraCard, card.canvas));
}

// A portrait canvas for a landscape recording: the card is a window over the top of the
// canvas; at every zoom and focus the picture covers it, and both the pointer (at rest) and
// the zoom's centre (zoomed in) show in the window where they sit in the picture.
TEST(StageGeometryZoom, VerticalLayoutFramesTheCardAndTheZoomInItsWindow)
{
    const Size canvas{720, 1280};
    for (const StageSpec& spec : {StageSpec{}, cardSpec(0.06, 0.02)}) {
        StageGeometry g(canvas, {2560, 1600}, spec, false, true);
        ASSERT_TRUE(g.window);
        const Rect& w = *g.window;
        EXPECT_NEAR(w.minY(), 0.3 * canvas.height, eps);
        EXPECT_NEAR(w.midX(), canvas.width / 2, eps);
        EXPECT_GT(w.width * w.height, 0.55 * canvas.width * canvas.height);
        EXPECT_EQ(g.cameraCard, w);
        // In the window's place at rest, as a fraction of it.
        auto inWindow = [&](const Affine& t, double fx, double fy) {
            const Point p = t.apply(g.screenPoint(fx, fy));
            return Point{(p.x - w.x) / w.width, (w.maxY() - p.y) / w.height};
        };
        for (double z : {1.0, 1.1, 1.37, 2.0, 3.2})
            for (double fx : {0.0, 0.12, 0.5, 0.83, 1.0})
                for (double fy : {0.0, 0.4, 1.0}) {
                    const Affine t = g.zoomTransform({z, fx, fy}, Point{1 - fx, 0.5});
                    EXPECT_TRUE(t.apply(g.screenRect).contains(w, eps)) << z << " " << fx << " " << fy;
                    const bool zoomed = z >= 1 + StageGeometry::verticalFocusHandOver;
                    if (z == 1.0 || zoomed) {
                        const Point f = zoomed ? Point{fx, fy} : Point{1 - fx, 0.5};
                        expectPointNear(inWindow(t, f.x, f.y), f);
                    }
                }
    }
    // Where the canvas is not portrait, the recording not wider than the window, or the
    // picture sits in a phone body, the card is fitted as usual.
    EXPECT_FALSE(StageGeometry({1280, 720}, {2560, 1600}, StageSpec{}, false, true).window);
    EXPECT_FALSE(StageGeometry(canvas, {1080, 1920}, StageSpec{}, false, true).window);
    EXPECT_FALSE(StageGeometry(canvas, {2560, 1600}, StageSpec{}, true, true).window);
}

TEST(StageGeometryCardCamera, ViewBlendsFromTheCanvasToTheCard)
{
    const Size canvas{1920, 1080};
    const Rect card{192, 108, 1536, 864}; // growth 0.25: fully blended at 1.25
    for (auto [z, focus, r, size] : std::vector<std::tuple<double, Point, Rect, Size>>{
             {1.0, {500, 300}, card, canvas}, {1.0001, {500, 300}, card, canvas}, {notANumber, {500, 300}, card, canvas},
             {infinite, {500, 300}, card, canvas}, {2, {notANumber, 300}, card, canvas}, {2, {500, 300}, {0, 0, 0, 450}, canvas},
             {2, {500, 300}, card, {0, 650}}})
        EXPECT_TRUE(StageGeometry::cardCameraTransform(z, focus, r, size).isIdentity()) << z;

    // The view stays inside a region blended from the canvas (t = 0) to the card (t = 1),
    // t = (z - 1) / growth.
    const Rect narrow{900, 0, 120, 1080}; // growth 15
    // {zoom, focus, card, the view}
    for (const auto& [z, focus, onCard, view] : std::vector<std::tuple<double, Point, Rect, Rect>>{
             {1.25, {0, 0}, card, card},
             {1.25, {1920, 1080}, card, card},
             {1.25, {1700, 120}, card, card},
             {3, {960, 540}, card, {640, 360, 640, 360}},
             {3, {0, 0}, card, {192, 108, 640, 360}},
             {3, {200, 900}, card, {192, 612, 640, 360}},
             {1.01, {0, 0}, card, {7.68, 4.32, 1920 / 1.01, 1080 / 1.01}},
             {1.125, {0, 0}, card, {96, 54, 1920 / 1.125, 1080 / 1.125}},
             {2, {1920, 1080}, {0, 0, 1920, 1080}, {960, 540, 960, 540}}, // no growth: blended at once
             {1.2, {0, 540}, narrow, {12, 90, 1600, 900}},
             {16, {0, 540}, narrow, {900, 506.25, 120, 67.5}},
         }) {
        SCOPED_TRACE(testing::Message() << z << " " << focus.x << "," << focus.y);
        Affine t = StageGeometry::cardCameraTransform(z, focus, onCard, canvas);
        EXPECT_TRUE(t.a == z && t.d == z && t.b == 0 && t.c == 0);
        expectRectNear(visibleRegion(t, canvas), view);
    }
}

TEST(StageGeometrySourceFit, KeepsAspectAndCentres)
{
    const Rect target{100, 50, 800, 450};
    for (auto [source, expected] : std::vector<std::pair<Rect, Rect>>{{{0, 0, 1600, 900}, target},
             {{0, 0, 2000, 500}, {100, 175, 800, 200}}, {{0, 0, 900, 1800}, {387.5, 50, 225, 450}},
             {{-40, 30, 160, 90}, target}}) {
        Affine fit = StageGeometry::sourceFit(source, target);
        expectRectNear(fit.apply(source), expected);
        EXPECT_EQ(fit.a, fit.d);
    }
    EXPECT_TRUE(StageGeometry::sourceFit({0, 0, 0, 10}, target).isIdentity());
    EXPECT_TRUE(StageGeometry::sourceFit({0, 0, 10, 10}, {0, 0, 10, notANumber}).isIdentity());
}

TEST(StageGeometryShadow, LayersScaleWithTheCardWidth)
{
    StageGeometry g({1280, 720}, {1280, 720}, StageSpec{}, false);
    auto expected = StageSpec{}.shadowLayers();
    for (auto& layer : expected)
        layer = {layer.y * g.screenRect.width, layer.blur * g.screenRect.width, layer.alpha};
    EXPECT_EQ(g.shadowLayers(StageSpec{}), expected);
}

TEST(GeometryTypes, AffineComposesInOrder)
{
    Affine scale = Affine::scale(2, 3);
    Affine move = Affine::translation(10, -4);
    expectPointNear(scale.then(move).apply(Point{1, 1}), {12, -1});
    expectPointNear(move.then(scale).apply(Point{1, 1}), {22, -9});
    expectRectNear(scale.then(move).apply(Rect{0, 0, 5, 5}), {10, -4, 10, 15});
}

TEST(DeviceFrame, PhoneBodyAroundTheScreen)
{
    // Without a card look the screen leaves room for the body (1.104·cw wide, ch + 0.104·cw
    // tall) inside a padding of 56 px at 1280, held between 6% and 35% of the shorter side;
    // with one the screen alone fits inside the card look's padding. Content under a pixel
    // is raised to one.
    StageSpec wide = pxSpec(2000, 10), px200 = pxSpec(200, 10), bare = cardSpec(0, 0.02), card = cardSpec(0.1, 0.02);
    const double phoneW = 1.104 * 1170, phoneH = 2532 + 0.104 * 1170;
    // {canvas, content, look, the screen's scale}
    const std::vector<std::tuple<Size, Size, StageSpec, double>> rows = {
        {{1080, 1920}, {1170, 2532}, {}, (1920 - 2 * 64.8) / phoneH}, // 47.25 raised to 64.8
        {{1920, 1080}, {1170, 2532}, {}, (1080 - 2 * 84) / phoneH},
        {{720, 720}, {1170, 2532}, {}, (720 - 2 * 43.2) / phoneH},
        {{1080, 1920}, {1170, 2532}, wide, (1080 - 2 * 378) / phoneW},
        {{1280, 1280}, {1000, 2000}, px200, (1280 - 400) / 2104.0},
        {{2560, 2560}, {1000, 2000}, px200, (2560 - 800) / 2104.0}, {{1080, 1920}, {1080, 1920}, bare, 1},
        {{1080, 1920}, {1080, 1920}, card, 0.8}, {{1080, 1920}, {0, 0}, {}, (1080 - 2 * 64.8) / 1.104},
        {{1080, 1920}, {-3, 0.2}, {}, (1080 - 2 * 64.8) / 1.104},
        {{1080, 1920}, {notANumber, notANumber}, {}, (1080 - 2 * 64.8) / 1.104},
        {{64, 64}, {100, 200}, {}, (64 - 2 * 3.84) / 210.4}, // the outline stays 1 px thick
    };
    for (size_t i = 0; i < rows.size(); ++i) {
        SCOPED_TRACE(i);
        const auto& [canvas, content, stage, scale] = rows[i];
        DeviceFrameGeometry g(canvas, content, stage);
        const double cw = std::isfinite(content.width) ? std::max(content.width, 1.0) : 1;
        const double ch = std::isfinite(content.height) ? std::max(content.height, 1.0) : 1;
        const double w = cw * scale;
        expectRectNear(g.screen, Rect::centered({w, ch * scale}, canvas));
        EXPECT_NEAR(g.bezel, 0.052 * w, eps);
        EXPECT_EQ(g.body, g.screen.outset(g.bezel, g.bezel));
        EXPECT_NEAR(g.screenCorner, 0.135 * w, eps);
        EXPECT_NEAR(g.bodyCorner, g.screenCorner + g.bezel, eps);
        EXPECT_NEAR(g.stroke, std::max(0.18 * g.bezel, 1.0), eps);
        // The island: centred, 0.03·w below the screen's top, its corner half its height.
        expectRectNear(g.island, {g.screen.midX() - 0.16 * w, g.screen.maxY() - 0.125 * w, 0.32 * w, 0.095 * w});
        EXPECT_NEAR(g.islandCorner, 0.0475 * w, eps);
    }
    EXPECT_EQ(DeviceFrameGeometry({0, 0}, {100, 200}, StageSpec{}), (DeviceFrameGeometry{}));
}

TEST(ReframeMath, BubbleIsASquareNearTheBottomCentre)
{
    for (auto [size, expected] : std::vector<std::pair<Size, Rect>>{{{1080, 1920}, {399.6, 54, 280.8, 280.8}},
             {{720, 1280}, {266.4, 36, 187.2, 187.2}}, {{0, 1920}, {}}, {{1080, 0}, {}}, {{-1, 5}, {}},
             {{notANumber, 1920}, {}}, {{1080, infinite}, {}}}) {
        SCOPED_TRACE(size.width);
        expectRectNear(ReframeMath::bubbleRect(size), expected);
    }
}

TEST(ReframeMath, InsetsStackAboveTheBubbleButNeverAboveTheMiddle)
{
    // 1080 × 1920 with the bubble's top at 54 + 280.8: k = 1.18125, base = 363.15.
    const Size tall{1080, 1920};
    const double k = 1080.0 / 1280 * 1.4;
    const double top = ReframeMath::bubbleRect(tall).maxY();
    // {canvas, the bubble's top, whether keycaps show, keycap inset, caption inset}
    for (auto [size, bubbleTop, keys, keycap, caption] :
        std::vector<std::tuple<Size, std::optional<double>, bool, double, double>>{{tall, top, true, 287.55, 287.55},
            {tall, top, false, 287.55, 223.7625}, {tall, 1500, true, 960 - 64 * k, 960 - 118 * k},
            {tall, 1500, false, 960 - 64 * k, 960 - 118 * k}, {{1080, 100}, 300, false, 0, 0}, {tall, 1, false, 0, 0},
            {tall, std::nullopt, true, 0, 0}, {tall, 0.0, true, 0, 0}, {tall, -20.0, false, 0, 0},
            {tall, notANumber, false, 0, 0}, {{0, 1920}, 300.0, true, 0, 0}, {{1080, -1}, 300.0, true, 0, 0}}) {
        SCOPED_TRACE(testing::Message() << size.height << " " << bubbleTop.value_or(-1) << " " << keys);
        auto stack = ReframeMath::bottomStack(size, bubbleTop, keys);
        EXPECT_NEAR(stack.keycapInset, keycap, eps);
        EXPECT_NEAR(stack.captionInset, caption, eps);
    }
}

} // namespace
} // namespace plim
