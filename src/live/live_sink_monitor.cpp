#include "live/live_sinks.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace plim {

void MonitorLiveSink::consume(const LiveFrame& frame)
{
    std::lock_guard lock(m_lock);
    m_latest = frame;
    m_running = true;
}

LiveSinkHealth MonitorLiveSink::health() const
{
    std::lock_guard lock(m_lock);
    if (m_running)
        return {LiveSinkHealth::Running{0}};
    return {LiveSinkHealth::Idle{}};
}

void MonitorLiveSink::close()
{
    std::lock_guard lock(m_lock);
    m_latest.reset();
    m_running = false;
}

std::optional<std::pair<Image, int64_t>> MonitorLiveSink::latest(int maxWidth) const
{
    LiveFrame frame;
    {
        std::lock_guard lock(m_lock);
        if (!m_latest)
            return std::nullopt;
        frame = *m_latest;
    }
    return std::pair{downscaled(frame.image, maxWidth), frame.sequence};
}

Image downscaled(const Image& picture, int maxWidth)
{
    if (picture.isEmpty() || maxWidth <= 0 || picture.width <= maxWidth)
        return picture;
    const int width = maxWidth;
    const int height = std::max(1, static_cast<int>(std::lround(static_cast<double>(picture.height) * width / picture.width)));
    Image out = Image::uninitialized(width, height);
    // Each output pixel averages the source pixels its box covers (whole pixels).
    std::vector<int> x0(static_cast<size_t>(width) + 1);
    for (int x = 0; x <= width; ++x)
        x0[static_cast<size_t>(x)] = static_cast<int>(static_cast<int64_t>(x) * picture.width / width);
    std::vector<uint32_t> sums(static_cast<size_t>(width) * 4);
    for (int y = 0; y < height; ++y) {
        const int ya = static_cast<int>(static_cast<int64_t>(y) * picture.height / height);
        const int yb = std::max(ya + 1, static_cast<int>(static_cast<int64_t>(y + 1) * picture.height / height));
        std::ranges::fill(sums, 0u);
        for (int sy = ya; sy < yb; ++sy) {
            const uint8_t* row = picture.row(sy);
            for (int x = 0; x < width; ++x) {
                uint32_t* s = &sums[static_cast<size_t>(x) * 4];
                const int xb = std::max(x0[static_cast<size_t>(x)] + 1, x0[static_cast<size_t>(x) + 1]);
                for (int sx = x0[static_cast<size_t>(x)]; sx < xb; ++sx)
                    for (int c = 0; c < 4; ++c)
                        s[c] += row[sx * 4 + c];
            }
        }
        uint8_t* dst = out.row(y);
        for (int x = 0; x < width; ++x) {
            const int xb = std::max(x0[static_cast<size_t>(x)] + 1, x0[static_cast<size_t>(x) + 1]);
            const uint32_t count = static_cast<uint32_t>((xb - x0[static_cast<size_t>(x)]) * (yb - ya));
            for (int c = 0; c < 4; ++c)
                dst[x * 4 + c] = static_cast<uint8_t>((sums[static_cast<size_t>(x) * 4 + c] + count / 2) / count);
        }
    }
    return out;
}

} // namespace plim
