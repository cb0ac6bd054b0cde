#include "live/camera_format.h"

#include "live/loopback_device.h"
#include "media/colour_convert.h"
#include "stage/compositor.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace plim {

namespace {

// BT.601, limited range, in 16-bit fixed point (NV12 comes from media/'s 4:2:0 conversion).
constexpr int fixed(double v) { return static_cast<int>(v * 65536.0 + (v < 0 ? -0.5 : 0.5)); }
constexpr double kr = 0.299, kb = 0.114, kg = 1 - kr - kb;
constexpr double yScale = 219.0 / 255.0, cScale = 224.0 / 255.0;
constexpr int yR = fixed(yScale * kr), yG = fixed(yScale * kg), yB = fixed(yScale * kb);
constexpr int uR = fixed(-cScale * kr / (2 * (1 - kb))), uG = fixed(-cScale * kg / (2 * (1 - kb))), uB = fixed(cScale * 0.5);
constexpr int vR = fixed(cScale * 0.5), vG = fixed(-cScale * kg / (2 * (1 - kr))), vB = fixed(-cScale * kb / (2 * (1 - kr)));

// One line of pixels into YUYV: each pair's own lumas and the chroma of their mean. Plain
// loops over bytes, for the vectoriser.
__attribute__((target_clones("avx2", "default"))) void yuyvLine(const uint8_t* __restrict p, int pairs, uint8_t* __restrict o)
{
    constexpr int yOffset = (16 << 16) + (1 << 15), cOffset = (128 << 17) + (1 << 16);
    for (int x = 0; x < pairs; ++x) {
        const int b0 = p[8 * x], g0 = p[8 * x + 1], r0 = p[8 * x + 2];
        const int b1 = p[8 * x + 4], g1 = p[8 * x + 5], r1 = p[8 * x + 6];
        const int b = b0 + b1, g = g0 + g1, r = r0 + r1;
        o[4 * x] = static_cast<uint8_t>((yR * r0 + yG * g0 + yB * b0 + yOffset) >> 16);
        o[4 * x + 1] = static_cast<uint8_t>((uR * r + uG * g + uB * b + cOffset) >> 17);
        o[4 * x + 2] = static_cast<uint8_t>((yR * r1 + yG * g1 + yB * b1 + yOffset) >> 16);
        o[4 * x + 3] = static_cast<uint8_t>((vR * r + vG * g + vB * b + cOffset) >> 17);
    }
}

int even(double v) { return std::max(2, static_cast<int>(std::lround(v / 2)) * 2); }

bool ours(uint32_t pixels) { return pixels == fourccYuyv || pixels == fourccNv12; }

} // namespace

std::string fourccName(uint32_t code)
{
    std::string name;
    for (int i = 0; i < 4; ++i) {
        const char c = static_cast<char>((code >> (8 * i)) & 0xff);
        name += (c >= 0x20 && c < 0x7f) ? c : '?';
    }
    return name;
}

CameraFormat requestedCameraFormat(int width, int height, double rate)
{
    const double scale = std::min({1.0, static_cast<double>(cameraMaxWidth) / std::max(width, 1),
        static_cast<double>(cameraMaxHeight) / std::max(height, 1)});
    CameraFormat format;
    format.pixels = fourccYuyv;
    format.width = std::min(cameraMaxWidth, even(width * scale));
    format.height = std::min(cameraMaxHeight, even(height * scale));
    format.rate = std::clamp(static_cast<int>(std::lround(rate)), 1, 120);
    return withLayout(format);
}

CameraFormat withLayout(CameraFormat format)
{
    const int tight = format.pixels == fourccNv12 ? format.width : format.width * 2;
    format.bytesPerLine = std::max(format.bytesPerLine, tight);
    const int64_t lines = format.pixels == fourccNv12 ? format.height + format.height / 2 : format.height;
    const int64_t needed = static_cast<int64_t>(format.bytesPerLine) * lines;
    if (format.frameBytes < needed)
        format.frameBytes = static_cast<int>(needed);
    return format;
}

Result<CameraFormat> negotiateCameraFormat(int width, int height, double rate, const CameraFormatAsk& ask)
{
    const CameraFormat wanted = requestedCameraFormat(width, height, rate);
    CameraFormat answer = PLIM_TRY(ask(wanted));
    if (!ours(answer.pixels)) {
        CameraFormat again = wanted;
        again.pixels = fourccNv12;
        again.bytesPerLine = 0;
        again.frameBytes = 0;
        answer = PLIM_TRY(ask(withLayout(again)));
    }
    const std::string reset = " Close the apps using it and reload it: sudo modprobe -r v4l2loopback && "
        + loopbackLoadCommand("Plim Camera") + ".";
    if (!ours(answer.pixels))
        return fail("Plim Camera is set to " + fourccName(answer.pixels) + " pictures, which Plim cannot write." + reset);
    const bool fits = answer.width >= 16 && answer.height >= 16 && answer.width <= 8192 && answer.height <= 8192
        && answer.width % 2 == 0 && (answer.pixels != fourccNv12 || answer.height % 2 == 0);
    if (!fits)
        return fail("Plim Camera is set to " + std::to_string(answer.width) + " x " + std::to_string(answer.height)
            + " pictures, a size Plim cannot fill." + reset);
    if (answer.rate <= 0)
        answer.rate = wanted.rate;
    return withLayout(answer);
}

void bgraToYuyv(const Image& image, uint8_t* out, int bytesPerLine)
{
    for (int y = 0; y < image.height; ++y)
        yuyvLine(image.row(y), image.width / 2, out + static_cast<std::ptrdiff_t>(y) * bytesPerLine);
}

void bgraToNv12(const Image& image, uint8_t* out, int bytesPerLine)
{
    // The encoder's 4:2:0 conversion, its two chroma planes woven into one.
    const int pairs = image.width / 2;
    std::vector<uint8_t> u(static_cast<size_t>(pairs)), v(static_cast<size_t>(pairs));
    uint8_t* chroma = out + static_cast<std::ptrdiff_t>(bytesPerLine) * image.height;
    for (int y = 0; y + 1 < image.height; y += 2) {
        uint8_t* planes[3] = {out + static_cast<std::ptrdiff_t>(y) * bytesPerLine, u.data(), v.data()};
        const int linesizes[3] = {bytesPerLine, pairs, pairs};
        bgraToYuv420(image.row(y), image.stride, image.width, 2, planes, linesizes, YuvMatrix::bt601);
        uint8_t* uv = chroma + static_cast<std::ptrdiff_t>(y / 2) * bytesPerLine;
        for (int x = 0; x < pairs; ++x) {
            uv[2 * x] = u[static_cast<size_t>(x)];
            uv[2 * x + 1] = v[static_cast<size_t>(x)];
        }
    }
}

bool writeCameraFrame(const Image& image, const CameraFormat& format, std::span<uint8_t> out)
{
    const CameraFormat laid = withLayout(format);
    if (image.width != laid.width || image.height != laid.height || out.size() < static_cast<size_t>(laid.frameBytes))
        return false;
    if (laid.pixels == fourccNv12)
        bgraToNv12(image, out.data(), laid.bytesPerLine);
    else
        bgraToYuyv(image, out.data(), laid.bytesPerLine);
    return true;
}

FrameFitter::FrameFitter() = default;
FrameFitter::~FrameFitter() = default;

Result<Image> FrameFitter::fit(const Image& image, int width, int height)
{
    if (image.width == width && image.height == height)
        return image;
    if (!m_compositor)
        m_compositor = PLIM_TRY(Compositor::create({Compositor::Backend::cpu, 1}));
    Image fitted = Image::uninitialized(width, height);
    m_compositor->clear(fitted, {0, 0, 0, 1});
    const double scale = std::min(static_cast<double>(width) / image.width, static_cast<double>(height) / image.height);
    const Affine place{scale, 0, 0, scale, (width - image.width * scale) / 2, (height - image.height * scale) / 2};
    m_compositor->draw(fitted, image, place);
    return fitted;
}

} // namespace plim
