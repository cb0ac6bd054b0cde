#include "stage/stage_geometry.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace plim {
namespace {

constexpr double eps = 1e-9;
const double nan = std::numeric_limits<double>::quiet_NaN();
const double inf = std::numeric_limits<double>::infinity();

void expectRectNear(const Rect& actual, const Rect& expected, double tolerance = 1e-6)
{
    EXPECT_NEAR(actual.x, expected.x, tolerance);
    EXPECT_NEAR(actual.y, expected.y, tolerance);
    EXPECT_NEAR(actual.width, expected.width, tolerance);
    EXPECT_NEAR(actual.height, expected.height, tolerance);
}

void expectPointNear(Point actual, Point expected, double tolerance = 1e-6)
{
    EXPECT_NEAR(actual.x, expected.x, tolerance);
    EXPECT_NEAR(actual.y, expected.y, tolerance);
}

// The part of the canvas that a transform brings onto the output.
Rect visibleRegion(const Affine& t, Size canvas)
{
    return {-t.tx / t.a, -t.ty / t.d, canvas.width / t.a, canvas.height / t.d};
}

StageSpec cardSpec(double padding, double corners)
{
    StageSpec spec;
    spec.card = StageSpec::CardLook{padding, corners, 1.0, std::nullopt};
    return spec;
}

TEST(StageGeometryCard, DefaultLookAt1280)
{
    StageGeometry g({1280, 720}, {1920, 1080}, StageSpec{}, false);
    // Padding 56 on each side; the 16:9 picture is limited by the height.
    const double s = (720.0 - 112) / 1080;
    expectRectNear(g.screenRect, {(1280 - 1920 * s) / 2, 56, 1920 * s, 608});
    EXPECT_DOUBLE_EQ(g.cornerRadius, 10);
    EXPECT_FALSE(g.cardCamera);
    EXPECT_EQ(g.cameraCard, g.screenRect);
    EXPECT_EQ(g.canvas, (Size{1280, 720}));
}

TEST(StageGeometryCard, PxSettingsScaleWithCanvasWidth)
{
    StageSpec spec;
    spec.paddingPX = 40;
    spec.cornersPX = 16;
    StageGeometry base({1280, 800}, {1600, 1000}, spec, false);
    expectRectNear(base.screenRect, {40 + (1200 - 1152) / 2.0, 40, 1152, 720});
    for (double factor : {0.5, 1.5, 2.0, 3.0}) {
        StageGeometry g({1280 * factor, 800 * factor}, {1600, 1000}, spec, false);
        expectRectNear(g.screenRect,
            {base.screenRect.x * factor, base.screenRect.y * factor, base.screenRect.width * factor,
                base.screenRect.height * factor});
        EXPECT_NEAR(g.cornerRadius, 16 * factor, eps);
    }
    // A square canvas 1080 wide: padding 40·1080/1280 = 33.75.
    StageGeometry square({1080, 1080}, {1000, 1000}, spec, false);
    expectRectNear(square.screenRect, {33.75, 33.75, 1012.5, 1012.5});
    EXPECT_NEAR(square.cornerRadius, 16 * 1080.0 / 1280, eps);
}

TEST(StageGeometryCard, PaddingIsHeldAt35PercentOfTheShorterSide)
{
    StageSpec spec;
    spec.paddingPX = 500;
    StageGeometry g({1280, 720}, {1280, 720}, spec, false);
    const double p = 0.35 * 720;
    EXPECT_NEAR(g.screenRect.y, p, eps);
    EXPECT_NEAR(g.screenRect.height, 720 - 2 * p, eps);

    auto card = cardSpec(0.9, 0.0);
    StageGeometry c({1000, 2000}, {1000, 2000}, card, false);
    EXPECT_NEAR(c.screenRect.x, 350, eps);
    EXPECT_NEAR(c.screenRect.width, 300, eps);
}

TEST(StageGeometryCard, AspectFitsWiderAndTallerContent)
{
    const StageSpec spec;
    // Wider than the room: limited by width, centred vertically.
    StageGeometry wide({1280, 720}, {3000, 1000}, spec, false);
    const double sw = 1168.0 / 3000;
    expectRectNear(wide.screenRect, {56, (720 - 1000 * sw) / 2, 1168, 1000 * sw});
    // Taller: limited by height, centred horizontally.
    StageGeometry tall({1280, 720}, {1000, 2000}, spec, false);
    expectRectNear(tall.screenRect, {(1280 - 304) / 2.0, 56, 304, 608});
    // Either way the card keeps the content's aspect.
    EXPECT_NEAR(wide.screenRect.width / wide.screenRect.height, 3.0, 1e-9);
    EXPECT_NEAR(tall.screenRect.width / tall.screenRect.height, 0.5, 1e-9);
}

TEST(StageGeometryCard, UnusableContentTakesTheCanvasSize)
{
    StageGeometry reference({1920, 1080}, {1920, 1080}, StageSpec{}, false);
    for (Size content : {Size{0, 0}, Size{-5, 100}, Size{nan, 10}, Size{100, inf}}) {
        StageGeometry g({1920, 1080}, content, StageSpec{}, false);
        EXPECT_EQ(g.screenRect, reference.screenRect);
    }
}

TEST(StageGeometryCard, UnusableCanvasGivesAnEmptyStageAndIdentityZoom)
{
    for (Size canvas : {Size{0, 720}, Size{nan, nan}, Size{-1280, 720}}) {
        StageGeometry g(canvas, {1920, 1080}, StageSpec{}, false);
        EXPECT_EQ(g.screenRect, Rect{});
        EXPECT_TRUE(g.zoomTransform({2, 0.5, 0.5}).isIdentity());
    }
}

TEST(StageGeometryCard, CardLookReplacesPxSettings)
{
    auto spec = cardSpec(0.1, 0.02);
    spec.paddingPX = 0;
    spec.cornersPX = 99;
    StageGeometry g({1920, 1080}, {1920, 1080}, spec, false);
    // Padding is a fraction of the shorter side, corners a fraction of the card's width.
    expectRectNear(g.screenRect, {(1920 - 1536) / 2.0, 108, 1536, 864});
    EXPECT_NEAR(g.cornerRadius, 1536 * 0.02, eps);
    EXPECT_TRUE(g.cardCamera);
    EXPECT_EQ(g.cameraCard, g.screenRect);
}

TEST(StageGeometryCard, DeviceFramedCardLookUsesThePhoneScreenAsCameraCard)
{
    auto spec = cardSpec(0.05, 0.02);
    StageGeometry framed({1080, 1920}, {1170, 2532}, spec, true);
    EXPECT_EQ(framed.cameraCard, DeviceFrameGeometry({1080, 1920}, {1170, 2532}, spec).screen);
    // Without a card look a framed plim's camera card is still the screen card.
    StageGeometry plain({1080, 1920}, {1170, 2532}, StageSpec{}, true);
    EXPECT_EQ(plain.cameraCard, plain.screenRect);
    EXPECT_FALSE(plain.cardCamera);
}

TEST(StageGeometryCard, PicturePositionsFlipOntoTheCanvas)
{
    StageGeometry g({1280, 720}, {1920, 1080}, StageSpec{}, false);
    const Rect& s = g.screenRect;
    expectPointNear(g.screenPoint(0, 0), {s.minX(), s.maxY()});
    expectPointNear(g.screenPoint(1, 1), {s.maxX(), s.minY()});
    expectPointNear(g.screenPoint(0.25, 0.75), {s.x + 0.25 * s.width, s.y + 0.25 * s.height});
    // A box at the picture's top-left sits at the card's top-left on the y-up canvas.
    expectRectNear(g.screenRectOf({0, 0, 0.5, 0.25}), {s.x, s.maxY() - 0.25 * s.height, 0.5 * s.width,
                                                           0.25 * s.height});
    expectRectNear(g.screenRectOf({0, 0, 1, 1}), s);
    // A zoom centre lands where the same picture point does.
    expectPointNear(StageGeometry::focusOn(s, {2, 0.3, 0.6}), g.screenPoint(0.3, 0.6));
}

TEST(StageGeometryZoom, NoMagnificationIsTheIdentity)
{
    StageGeometry g({1280, 720}, {1920, 1080}, StageSpec{}, false);
    for (double scale : {1.0, 1.0001, 0.5, 0.0, -2.0, nan, inf})
        EXPECT_TRUE(g.zoomTransform({scale, 0.3, 0.7}).isIdentity()) << scale;
    EXPECT_FALSE(g.zoomTransform({1.0002, 0.3, 0.7}).isIdentity());
}

TEST(StageGeometryZoom, TopLeftCornerOfFullCanvasScreen)
{
    StageSpec spec;
    spec.paddingPX = 0;
    const double W = 1280, H = 720;
    StageGeometry g({W, H}, {W, H}, spec, false);
    ASSERT_EQ(g.screenRect, (Rect{0, 0, W, H}));
    Affine t = g.zoomTransform({2, 0, 0});
    EXPECT_EQ(t, (Affine{2, 0, 0, 2, 0, -H}));
    // The top-left quarter fills the canvas.
    expectPointNear(t.apply(Point{0, H / 2}), {0, 0});
    expectPointNear(t.apply(Point{W / 2, H}), {W, H});
}

TEST(StageGeometryZoom, FocusStaysPutWhenThereIsRoom)
{
    StageGeometry g({1920, 1080}, {2560, 1440}, StageSpec{}, false);
    for (ZoomState zoom : {ZoomState{2, 0.5, 0.5}, ZoomState{1.5, 0.3, 0.6}, ZoomState{2.4, 0.45, 0.55},
             ZoomState{1.8, 0.6, 0.35}}) {
        Affine t = g.zoomTransform(zoom);
        EXPECT_EQ(t.a, zoom.scale);
        EXPECT_EQ(t.d, zoom.scale);
        // Centre measured from the top-left of the card; the canvas is y-up.
        Point focus{g.screenRect.x + zoom.centerX * g.screenRect.width,
            g.screenRect.maxY() - zoom.centerY * g.screenRect.height};
        expectPointNear(t.apply(focus), focus);
    }
}

TEST(StageGeometryZoom, MagnifiedCanvasAlwaysCoversTheOutput)
{
    const Size canvas{1280, 720};
    StageGeometry g(canvas, {1440, 900}, StageSpec{}, false);
    const Rect whole{0, 0, canvas.width, canvas.height};
    for (double scale : {1.2, 2.0, 3.5})
        for (double cx : {-0.5, 0.0, 0.1, 0.5, 0.9, 1.0, 1.7})
            for (double cy : {-0.5, 0.0, 0.2, 0.5, 0.8, 1.0, 1.5}) {
                Affine t = g.zoomTransform({scale, cx, cy});
                EXPECT_TRUE(t.apply(whole).contains(whole, 1e-6)) << scale << " " << cx << " " << cy;
            }
    // The card's bottom-right corner has room inside the padding; a centre past it clamps
    // to the canvas's bottom-right.
    Affine corner = g.zoomTransform({2, 1, 1});
    EXPECT_NEAR(corner.tx, -g.screenRect.maxX(), eps);
    EXPECT_NEAR(corner.ty, -g.screenRect.minY(), eps);
    Affine beyond = g.zoomTransform({2, 1.7, 1.5});
    EXPECT_NEAR(beyond.tx, -1280, eps);
    EXPECT_NEAR(beyond.ty, 0, eps);
    // A centre that is not a number counts as the middle of the picture.
    EXPECT_EQ(g.zoomTransform({2, nan, nan}), g.zoomTransform({2, 0.5, 0.5}));
}

TEST(StageGeometryZoom, CardLookZoomUsesTheCardCamera)
{
    auto spec = cardSpec(0.1, 0.02);
    StageGeometry g({1920, 1080}, {1920, 1080}, spec, false);
    ZoomState zoom{1.6, 0.2, 0.3};
    Point focus = StageGeometry::focusOn(g.cameraCard, zoom);
    EXPECT_EQ(g.zoomTransform(zoom), StageGeometry::cardCameraTransform(1.6, focus, g.cameraCard, g.canvas));
}

TEST(StageGeometryCardCamera, InvalidInputGivesIdentity)
{
    const Rect card{100, 100, 800, 450};
    const Size canvas{1000, 650};
    EXPECT_TRUE(StageGeometry::cardCameraTransform(1.0, {500, 300}, card, canvas).isIdentity());
    EXPECT_TRUE(StageGeometry::cardCameraTransform(1.0001, {500, 300}, card, canvas).isIdentity());
    EXPECT_TRUE(StageGeometry::cardCameraTransform(nan, {500, 300}, card, canvas).isIdentity());
    EXPECT_TRUE(StageGeometry::cardCameraTransform(inf, {500, 300}, card, canvas).isIdentity());
    EXPECT_TRUE(StageGeometry::cardCameraTransform(2, {nan, 300}, card, canvas).isIdentity());
    EXPECT_TRUE(StageGeometry::cardCameraTransform(2, {500, 300}, {0, 0, 0, 450}, canvas).isIdentity());
    EXPECT_TRUE(StageGeometry::cardCameraTransform(2, {500, 300}, card, {0, 650}).isIdentity());
}

TEST(StageGeometryCardCamera, FullZoomStaysInsideTheCard)
{
    const Size canvas{1920, 1080};
    const Rect card{192, 108, 1536, 864};
    const double growth = std::max(1920.0 / 1536, 1080.0 / 864) - 1; // 0.25
    const double z = 1 + growth;
    for (Point focus : {Point{0, 0}, Point{1920, 1080}, Point{200, 900}, Point{960, 540}, Point{1700, 120}}) {
        Affine t = StageGeometry::cardCameraTransform(z, focus, card, canvas);
        EXPECT_NEAR(t.a, z, eps);
        EXPECT_TRUE(card.contains(visibleRegion(t, canvas), 1e-6)) << focus.x << "," << focus.y;
    }
    // Deeper zooms stay inside too, and a central focus lands in the middle of the output.
    Affine deep = StageGeometry::cardCameraTransform(3, {960, 540}, card, canvas);
    expectPointNear(deep.apply(Point{960, 540}), {960, 540});
    Affine corner = StageGeometry::cardCameraTransform(3, {0, 0}, card, canvas);
    expectRectNear(visibleRegion(corner, canvas), {192, 108, 640, 360});
}

TEST(StageGeometryCardCamera, SlightZoomMayPanOverTheWholeCanvas)
{
    const Size canvas{1920, 1080};
    const Rect card{192, 108, 1536, 864};
    Affine t = StageGeometry::cardCameraTransform(1.01, {0, 0}, card, canvas);
    Rect view = visibleRegion(t, canvas);
    // Outside the card, but never outside the canvas.
    EXPECT_LT(view.minX(), card.minX());
    EXPECT_LT(view.minY(), card.minY());
    EXPECT_TRUE((Rect{0, 0, 1920, 1080}).contains(view, 1e-6));
    // Blend halfway: the allowed region is halfway between canvas and card.
    Affine half = StageGeometry::cardCameraTransform(1.125, {0, 0}, card, canvas);
    Rect halfView = visibleRegion(half, canvas);
    EXPECT_NEAR(halfView.minX(), 96, 1e-6);
    EXPECT_NEAR(halfView.minY(), 54, 1e-6);
}

TEST(StageGeometryCardCamera, CardAsLargeAsTheCanvasBlendsAtOnce)
{
    // No growth: the whole canvas is the card, so the view only stays inside it.
    const Size canvas{1280, 720};
    const Rect card{0, 0, 1280, 720};
    Affine t = StageGeometry::cardCameraTransform(2, {1280, 720}, card, canvas);
    expectRectNear(visibleRegion(t, canvas), {640, 360, 640, 360});
}

TEST(StageGeometryCardCamera, NarrowCardPullsTheViewTowardIt)
{
    // A narrow card: a slight zoom may still roam; a full one is held on the card.
    const Size canvas{1920, 1080};
    const Rect card{900, 0, 120, 1080};
    const double z = 1.2; // growth is 15, t = 0.2/15
    Affine t = StageGeometry::cardCameraTransform(z, {0, 540}, card, canvas);
    const double blend = 0.2 / 15;
    const double rw = 1920 + blend * (120 - 1920);
    const double viewW = 1920 / z;
    ASSERT_LE(viewW, rw);
    Rect view = visibleRegion(t, canvas);
    EXPECT_NEAR(view.minX(), blend * 900, 1e-6);

    Affine narrow = StageGeometry::cardCameraTransform(16, {0, 540}, card, canvas);
    Rect narrowView = visibleRegion(narrow, canvas);
    EXPECT_NEAR(narrowView.midX(), card.midX(), 1e-6);
}

TEST(StageGeometrySourceFit, KeepsAspectAndCentres)
{
    const Rect target{100, 50, 800, 450};
    // Same aspect: exact fill.
    Affine same = StageGeometry::sourceFit({0, 0, 1600, 900}, target);
    expectRectNear(same.apply(Rect{0, 0, 1600, 900}), target);
    // Wider source: full width, centred vertically.
    Affine wide = StageGeometry::sourceFit({0, 0, 2000, 500}, target);
    expectRectNear(wide.apply(Rect{0, 0, 2000, 500}), {100, 50 + (450 - 200) / 2.0, 800, 200});
    // Taller source: full height, centred horizontally.
    Affine tall = StageGeometry::sourceFit({0, 0, 900, 1800}, target);
    expectRectNear(tall.apply(Rect{0, 0, 900, 1800}), {100 + (800 - 225) / 2.0, 50, 225, 450});
    // A source not at the origin.
    Affine moved = StageGeometry::sourceFit({-40, 30, 160, 90}, target);
    expectRectNear(moved.apply(Rect{-40, 30, 160, 90}), target);
    EXPECT_NEAR(moved.a, moved.d, eps);
    // Degenerate rectangles: identity.
    EXPECT_TRUE(StageGeometry::sourceFit({0, 0, 0, 10}, target).isIdentity());
    EXPECT_TRUE(StageGeometry::sourceFit({0, 0, 10, 10}, {0, 0, 10, nan}).isIdentity());
}

TEST(StageGeometryShadow, LayersScaleWithTheCardWidth)
{
    StageGeometry g({1280, 720}, {1280, 720}, StageSpec{}, false);
    auto layers = g.shadowLayers(StageSpec{});
    ASSERT_EQ(layers.size(), 2u);
    const double width = g.screenRect.width;
    EXPECT_NEAR(layers[0].y, 0.035 * 0.35 * width, eps);
    EXPECT_NEAR(layers[0].blur, 0.1 * 0.35 * width, eps);
    EXPECT_NEAR(layers[0].alpha, 0.42 * 0.35, eps);
    EXPECT_NEAR(layers[1].blur, 0.014 * 0.35 * width, eps);

    auto spec = cardSpec(0.05, 0.01);
    spec.card->shadow = 0.004;
    EXPECT_TRUE(g.shadowLayers(spec).empty());
}

TEST(GeometryTypes, AffineComposesInOrder)
{
    Affine scale = Affine::scale(2, 3);
    Affine move = Affine::translation(10, -4);
    expectPointNear(scale.then(move).apply(Point{1, 1}), {12, -1});
    expectPointNear(move.then(scale).apply(Point{1, 1}), {22, -9});
    EXPECT_EQ(Affine::identity().then(move), move);
    expectRectNear(scale.then(move).apply(Rect{0, 0, 5, 5}), {10, -4, 10, 15});
}

} // namespace
} // namespace plim
