#include "live/camera_format.h"

#include "live/loopback_device.h"
#include "stage/compositor.h"

#include <algorithm>
#include <cmath>

namespace plim {

namespace {

// BT.601, limited range, in 16-bit fixed point.
constexpr int fixed(double v) { return static_cast<int>(v * 65536.0 + (v < 0 ? -0.5 : 0.5)); }
constexpr double kr = 0.299, kb = 0.114, kg = 1 - kr - kb;
constexpr double yScale = 219.0 / 255.0, cScale = 224.0 / 255.0;
constexpr int yR = fixed(yScale * kr), yG = fixed(yScale * kg), yB = fixed(yScale * kb);
constexpr int uR = fixed(-cScale * kr / (2 * (1 - kb))), uG = fixed(-cScale * kg / (2 * (1 - kb))), uB = fixed(cScale * 0.5);
constexpr int vR = fixed(cScale * 0.5), vG = fixed(-cScale * kg / (2 * (1 - kr))), vB = fixed(-cScale * kb / (2 * (1 - kr)));

inline uint8_t luma(const uint8_t* p)
{
    return static_cast<uint8_t>(16 + ((yR * p[2] + yG * p[1] + yB * p[0] + 32768) >> 16));
}

// Chroma of the sum of 2^`shift` pixels' components.
inline uint8_t chromaU(int b, int g, int r, int shift)
{
    return static_cast<uint8_t>(128 + ((uR * r + uG * g + uB * b + (1 << (15 + shift))) >> (16 + shift)));
}
inline uint8_t chromaV(int b, int g, int r, int shift)
{
    return static_cast<uint8_t>(128 + ((vR * r + vG * g + vB * b + (1 << (15 + shift))) >> (16 + shift)));
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
    for (int y = 0; y < image.height; ++y) {
        const uint8_t* p = image.row(y);
        uint8_t* o = out + static_cast<std::ptrdiff_t>(y) * bytesPerLine;
        for (int x = 0; x + 1 < image.width; x += 2, p += 8, o += 4) {
            const int b = p[0] + p[4], g = p[1] + p[5], r = p[2] + p[6];
            o[0] = luma(p);
            o[1] = chromaU(b, g, r, 1);
            o[2] = luma(p + 4);
            o[3] = chromaV(b, g, r, 1);
        }
    }
}

void bgraToNv12(const Image& image, uint8_t* out, int bytesPerLine)
{
    uint8_t* chroma = out + static_cast<std::ptrdiff_t>(bytesPerLine) * image.height;
    for (int y = 0; y + 1 < image.height; y += 2) {
        const uint8_t* p0 = image.row(y);
        const uint8_t* p1 = image.row(y + 1);
        uint8_t* y0 = out + static_cast<std::ptrdiff_t>(y) * bytesPerLine;
        uint8_t* y1 = y0 + bytesPerLine;
        uint8_t* c = chroma + static_cast<std::ptrdiff_t>(y / 2) * bytesPerLine;
        for (int x = 0; x + 1 < image.width; x += 2, p0 += 8, p1 += 8, y0 += 2, y1 += 2, c += 2) {
            y0[0] = luma(p0);
            y0[1] = luma(p0 + 4);
            y1[0] = luma(p1);
            y1[1] = luma(p1 + 4);
            const int b = p0[0] + p0[4] + p1[0] + p1[4], g = p0[1] + p0[5] + p1[1] + p1[5],
                      r = p0[2] + p0[6] + p1[2] + p1[6];
            c[0] = chromaU(b, g, r, 2);
            c[1] = chromaV(b, g, r, 2);
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
