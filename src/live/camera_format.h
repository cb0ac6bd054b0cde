#pragma once
// The pictures a V4L2 camera device takes from Plim Camera: which layout and size to ask
// the device for, how to settle on what it answers, and the conversion of a live frame
// (BGRA) into that layout. YUV here is BT.601 with limited range, what V4L2 cameras and
// the applications reading them assume for YUYV and NV12.
//
// Plain functions, safe on any thread. `FrameFitter` belongs to one thread at a time.

#include "base/error.h"
#include "base/image.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

namespace plim {

class Compositor;

constexpr uint32_t fourcc(char a, char b, char c, char d)
{
    return static_cast<uint32_t>(static_cast<uint8_t>(a)) | static_cast<uint32_t>(static_cast<uint8_t>(b)) << 8
        | static_cast<uint32_t>(static_cast<uint8_t>(c)) << 16 | static_cast<uint32_t>(static_cast<uint8_t>(d)) << 24;
}
constexpr uint32_t fourccYuyv = fourcc('Y', 'U', 'Y', 'V'); // packed 4:2:2: Y0 U Y1 V
constexpr uint32_t fourccNv12 = fourcc('N', 'V', '1', '2'); // Y plane, then interleaved U V at half size

// "YUYV", "MJPG"; characters that cannot be printed become '?'.
std::string fourccName(uint32_t code);

struct CameraFormat {
    uint32_t pixels = fourccYuyv;
    int width = 0;
    int height = 0;
    int rate = 0;         // frames per second
    int bytesPerLine = 0; // of the first plane
    int frameBytes = 0;   // one whole frame as written to the device
    bool operator==(const CameraFormat&) const = default;
};

// The largest picture Plim asks a camera device for; bigger canvases are shrunk to fit,
// keeping their shape. Video apps rarely take more, and a YUYV frame this size is 4 MB.
constexpr int cameraMaxWidth = 1920;
constexpr int cameraMaxHeight = 1080;

// What to ask the device for when the live canvas is `width` x `height` at `rate` frames a
// second: YUYV at the canvas size shrunk to fit the largest picture, both sides even, laid
// out tightly.
CameraFormat requestedCameraFormat(int width, int height, double rate);

// `format` with its lines and frame at least as long as its layout needs (a device may pad
// its lines; an answer shorter than the picture is replaced by the tight layout).
CameraFormat withLayout(CameraFormat format);

// Asks the device for the canvas's format through `ask` (it answers the format the device
// settled on, or a sentence) and settles on the answer: a device that keeps another size is
// filled at that size, one that answers a layout Plim cannot write is asked for NV12, and
// a layout or size Plim cannot fill fails with a sentence that says how to reset the device.
using CameraFormatAsk = std::function<Result<CameraFormat>(const CameraFormat& wanted)>;
Result<CameraFormat> negotiateCameraFormat(int width, int height, double rate, const CameraFormatAsk& ask);

// Converts a BGRA picture of the format's size into `out` (format.frameBytes long) in the
// format's layout. Alpha is ignored (the premultiplied picture shows over black). Padding
// at the end of lines is left as it is. writeCameraFrame() writes nothing and answers false
// when the picture or `out` is not the format's size.
void bgraToYuyv(const Image& image, uint8_t* out, int bytesPerLine);
void bgraToNv12(const Image& image, uint8_t* out, int bytesPerLine);
bool writeCameraFrame(const Image& image, const CameraFormat& format, std::span<uint8_t> out);

// Fits pictures into another size, their shape kept, centred over black: for a consumer
// that chose its own size. The picture itself comes back when the sizes already match.
class FrameFitter {
public:
    FrameFitter();
    ~FrameFitter();
    Result<Image> fit(const Image& image, int width, int height);

private:
    std::unique_ptr<Compositor> m_compositor;
};

} // namespace plim
