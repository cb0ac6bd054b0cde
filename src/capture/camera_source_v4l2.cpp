// A camera through libv4l2, which turns whatever the device sends (MJPEG, YUYV ...) into
// BGR24; swscale makes BGRA of it. Frames are read on the source's own thread.

#include "capture/camera_source.h"

#include "base/clock.h"

extern "C" {
#include <libswscale/swscale.h>
}

#include <fcntl.h>
#include <libv4l2.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <cstring>
#include <thread>
#include <vector>

namespace plim {

namespace {

class V4l2CameraSource final : public CameraSource {
public:
    ~V4l2CameraSource() override
    {
        stop();
        if (m_fd >= 0)
            v4l2_close(m_fd);
        if (m_sws)
            sws_freeContext(m_sws);
    }

    Status open(const std::string& path)
    {
        m_path = path;
        m_fd = v4l2_open(path.c_str(), O_RDWR | O_NONBLOCK);
        if (m_fd < 0)
            return fail("The camera at " + path + " could not be opened, so the plim rolls without the camera.",
                Error::Kind::missing);
        v4l2_format format{};
        format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        format.fmt.pix.width = 1280;
        format.fmt.pix.height = 720;
        format.fmt.pix.pixelformat = V4L2_PIX_FMT_BGR24;
        format.fmt.pix.field = V4L2_FIELD_ANY;
        if (v4l2_ioctl(m_fd, VIDIOC_S_FMT, &format) < 0 || format.fmt.pix.pixelformat != V4L2_PIX_FMT_BGR24)
            return fail("The camera at " + path + " offers no picture Plim can read, so the plim rolls without the camera.");
        m_width = int(format.fmt.pix.width);
        m_height = int(format.fmt.pix.height);
        m_stride = int(format.fmt.pix.bytesperline ? format.fmt.pix.bytesperline : format.fmt.pix.width * 3);
        v4l2_streamparm parm{};
        parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        if (v4l2_ioctl(m_fd, VIDIOC_G_PARM, &parm) == 0 && parm.parm.capture.timeperframe.numerator > 0)
            m_fps = double(parm.parm.capture.timeperframe.denominator) / parm.parm.capture.timeperframe.numerator;
        return {};
    }

    std::string deviceName() const override { return m_path; }
    int width() const override { return m_width; }
    int height() const override { return m_height; }
    double framesPerSecond() const override { return m_fps; }

    Status start(FrameHandler onFrame) override
    {
        m_thread = std::jthread([this, onFrame = std::move(onFrame)](std::stop_token stop) { run(stop, onFrame); });
        return {};
    }

    void stop() override
    {
        if (m_thread.joinable()) {
            m_thread.request_stop();
            m_thread.join();
        }
    }

private:
    void run(std::stop_token stop, const FrameHandler& onFrame)
    {
        std::vector<uint8_t> buffer(size_t(m_stride) * size_t(m_height));
        pollfd fd{m_fd, POLLIN, 0};
        while (!stop.stop_requested()) {
            if (::poll(&fd, 1, 50) <= 0)
                continue;
            ssize_t got = v4l2_read(m_fd, buffer.data(), buffer.size());
            double taken = systemUptime();
            if (got < ssize_t(buffer.size()))
                continue;
            Image image = Image::allocate(m_width & ~1, m_height & ~1);
            m_sws = sws_getCachedContext(m_sws, m_width, m_height, AV_PIX_FMT_BGR24, image.width, image.height,
                AV_PIX_FMT_BGRA, SWS_BILINEAR, nullptr, nullptr, nullptr);
            if (!m_sws)
                return;
            const uint8_t* src[1] = {buffer.data()};
            const int srcStride[1] = {m_stride};
            uint8_t* dst[1] = {image.pixels.get()};
            const int dstStride[1] = {int(image.stride)};
            sws_scale(m_sws, src, srcStride, 0, m_height, dst, dstStride);
            onFrame(CapturedFrame{std::move(image), taken});
        }
    }

    std::string m_path;
    int m_fd = -1;
    int m_width = 0, m_height = 0, m_stride = 0;
    double m_fps = 30;
    SwsContext* m_sws = nullptr;
    std::jthread m_thread;
};

} // namespace

Result<std::unique_ptr<CameraSource>> createV4l2CameraSource(const std::optional<std::string>& device)
{
    auto source = std::make_unique<V4l2CameraSource>();
    PLIM_TRY(source->open(device.value_or("/dev/video0")));
    return std::unique_ptr<CameraSource>(std::move(source));
}

} // namespace plim
