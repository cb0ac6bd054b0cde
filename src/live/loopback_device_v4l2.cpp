// The real v4l2loopback device: found by its card label in sysfs, driven by V4L2 ioctls on
// its /dev node, opened non-blocking.

#include "live/loopback_device.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

namespace plim {

namespace fs = std::filesystem;

std::string loopbackLoadCommand(const std::string& label)
{
    return "sudo modprobe v4l2loopback card_label=\"" + label + "\" exclusive_caps=1";
}

std::vector<std::string> videoDevicesLabelled(const fs::path& classFolder, const std::string& label)
{
    std::vector<std::pair<long, std::string>> found;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(classFolder, ec)) {
        const std::string name = entry.path().filename().string();
        if (!name.starts_with("video") || name.size() == 5
            || !std::all_of(name.begin() + 5, name.end(), [](char c) { return c >= '0' && c <= '9'; }))
            continue;
        std::ifstream in(entry.path() / "name");
        std::string text;
        std::getline(in, text);
        while (!text.empty() && (text.back() == '\n' || text.back() == ' ' || text.back() == '\r'))
            text.pop_back();
        if (text == label)
            found.emplace_back(std::stol(name.substr(5)), name);
    }
    std::sort(found.begin(), found.end());
    std::vector<std::string> names;
    for (auto& [number, name] : found)
        names.push_back(std::move(name));
    return names;
}

namespace {

int retrying(int fd, unsigned long request, void* arg)
{
    int r;
    do
        r = ioctl(fd, request, arg);
    while (r < 0 && errno == EINTR);
    return r;
}

class V4l2LoopbackDevice final : public LoopbackDevice {
public:
    explicit V4l2LoopbackDevice(LoopbackPlaces places) : m_places(std::move(places)) {}
    ~V4l2LoopbackDevice() override { close(); }

    std::expected<void, LoopbackTrouble> open(const std::string& label) override
    {
        close();
        const auto names = videoDevicesLabelled(m_places.videoClass, label);
        if (names.empty()) {
            std::error_code ec;
            if (fs::exists(m_places.module, ec))
                return std::unexpected(LoopbackTrouble{LoopbackTrouble::Kind::loadedWithoutLabel, {}});
            return std::unexpected(LoopbackTrouble{LoopbackTrouble::Kind::notInstalled, {}});
        }
        LoopbackTrouble trouble{LoopbackTrouble::Kind::notAnOutput, {}};
        for (const std::string& name : names) {
            const std::string path = (m_places.devices / name).string();
            const int fd = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
            if (fd < 0) {
                const auto kind = errno == EACCES || errno == EPERM ? LoopbackTrouble::Kind::denied : LoopbackTrouble::Kind::failed;
                trouble = {kind, path + ": " + std::strerror(errno)};
                continue;
            }
            v4l2_capability caps{};
            if (retrying(fd, VIDIOC_QUERYCAP, &caps) < 0) {
                trouble = {LoopbackTrouble::Kind::failed, path + ": " + std::strerror(errno)};
                ::close(fd);
                continue;
            }
            const uint32_t own = (caps.capabilities & V4L2_CAP_DEVICE_CAPS) ? caps.device_caps : caps.capabilities;
            if (!(own & V4L2_CAP_VIDEO_OUTPUT)) {
                trouble = {LoopbackTrouble::Kind::notAnOutput, path};
                ::close(fd);
                continue;
            }
            m_fd = fd;
            return {};
        }
        return std::unexpected(trouble);
    }

    std::expected<CameraFormat, int> setFormat(const CameraFormat& format) override
    {
        if (m_fd < 0)
            return std::unexpected(EBADF);
        v4l2_format f{};
        f.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
        f.fmt.pix.width = static_cast<uint32_t>(format.width);
        f.fmt.pix.height = static_cast<uint32_t>(format.height);
        f.fmt.pix.pixelformat = format.pixels;
        f.fmt.pix.field = V4L2_FIELD_NONE;
        f.fmt.pix.bytesperline = static_cast<uint32_t>(format.bytesPerLine);
        f.fmt.pix.sizeimage = static_cast<uint32_t>(format.frameBytes);
        f.fmt.pix.colorspace = V4L2_COLORSPACE_SMPTE170M;
        if (retrying(m_fd, VIDIOC_S_FMT, &f) < 0)
            return std::unexpected(errno);
        CameraFormat settled;
        settled.pixels = f.fmt.pix.pixelformat;
        settled.width = static_cast<int>(f.fmt.pix.width);
        settled.height = static_cast<int>(f.fmt.pix.height);
        settled.bytesPerLine = static_cast<int>(f.fmt.pix.bytesperline);
        settled.frameBytes = static_cast<int>(f.fmt.pix.sizeimage);
        // The rate is advice to readers; a device that keeps its own is still written to.
        v4l2_streamparm parm{};
        parm.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
        parm.parm.output.timeperframe = {1, static_cast<uint32_t>(std::max(format.rate, 1))};
        if (retrying(m_fd, VIDIOC_S_PARM, &parm) == 0 && parm.parm.output.timeperframe.numerator > 0)
            settled.rate = static_cast<int>(parm.parm.output.timeperframe.denominator / parm.parm.output.timeperframe.numerator);
        return settled;
    }

    Write write(std::span<const uint8_t> frame) override
    {
        if (m_fd < 0)
            return Write::lost;
        ssize_t n;
        do
            n = ::write(m_fd, frame.data(), frame.size());
        while (n < 0 && errno == EINTR);
        if (n == static_cast<ssize_t>(frame.size()))
            return Write::taken;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EBUSY || errno == ENOSPC))
            return Write::refused;
        return Write::lost;
    }

    void close() override
    {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
    }

private:
    LoopbackPlaces m_places;
    int m_fd = -1;
};

} // namespace

std::unique_ptr<LoopbackDevice> LoopbackDevice::system(LoopbackPlaces places)
{
    return std::make_unique<V4l2LoopbackDevice>(std::move(places));
}

} // namespace plim
