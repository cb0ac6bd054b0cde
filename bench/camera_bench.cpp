// What Plim Camera costs a frame on the live render thread: the BGRA → YUYV and NV12
// conversions of a 1080p canvas, the fit into a device held at 720p, and the whole
// v4l2loopback sink's consume() with a device that takes every frame.
// Usage: camera_bench [frames, default 240]

#include "live/camera_format.h"
#include "live/camera_sinks.h"
#include "stopwatch.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <vector>

using namespace plim;

namespace {

// A busy picture: every pixel differs from its neighbours, so nothing is cheaper than a real frame.
Image canvas(int width, int height)
{
    Image image = Image::uninitialized(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            uint8_t* p = image.row(y) + 4 * x;
            p[0] = static_cast<uint8_t>(x * 7 + y), p[1] = static_cast<uint8_t>(x ^ y), p[2] = static_cast<uint8_t>(y * 3), p[3] = 255;
        }
    return image;
}

// A device that takes every frame and keeps the last.
class TakingDevice final : public LoopbackDevice {
public:
    explicit TakingDevice(std::optional<CameraFormat> keeps) : m_keeps(keeps) {}
    std::expected<void, LoopbackTrouble> open(const std::string&) override { return {}; }
    std::expected<CameraFormat, int> setFormat(const CameraFormat& format) override { return m_keeps.value_or(format); }
    Write write(std::span<const uint8_t> frame) override
    {
        m_last.assign(frame.begin(), frame.end());
        return Write::taken;
    }
    void close() override {}

private:
    std::optional<CameraFormat> m_keeps;
    std::vector<uint8_t> m_last;
};

void report(const char* what, int frames, const std::function<void(int)>& step)
{
    step(0); // the first frame sets things up
    const auto start = bench::Steady::now();
    for (int i = 1; i <= frames; ++i)
        step(i);
    const double each = bench::millisecondsSince(start) / frames;
    std::printf("%-44s %6.2f ms a frame (%4.1f %% of a 60 fps frame)\n", what, each, each / (1000.0 / 60) * 100);
}

} // namespace

int main(int argc, char** argv)
{
    const int frames = argc > 1 ? std::max(1, std::atoi(argv[1])) : 240;
    const Image picture = canvas(1920, 1080);
    std::vector<uint8_t> out(1920 * 1080 * 2);

    report("BGRA → YUYV, 1920 x 1080", frames, [&](int) { bgraToYuyv(picture, out.data(), 1920 * 2); });
    report("BGRA → NV12, 1920 x 1080", frames, [&](int) { bgraToNv12(picture, out.data(), 1920); });
    FrameFitter fitter;
    report("fit 1920 x 1080 into 1280 x 720", frames, [&](int) { (void)fitter.fit(picture, 1280, 720); });

    auto sink = makeV4l2LoopbackSink({}, std::make_unique<TakingDevice>(std::nullopt));
    report("v4l2loopback consume(), YUYV 1080p", frames,
        [&](int i) { sink->consume({picture, i / 60.0, 1 / 60.0, i}); });
    auto held = makeV4l2LoopbackSink({}, std::make_unique<TakingDevice>(withLayout({fourccYuyv, 1280, 720, 30, 0, 0})));
    report("v4l2loopback consume(), device held at 720p", frames,
        [&](int i) { held->consume({picture, i / 60.0, 1 / 60.0, i}); });
    return 0;
}
