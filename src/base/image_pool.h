#pragma once
// Frames handed out again once every copy of them is gone, so a stream of pictures reuses
// the same memory instead of mapping fresh pages for each one (a 4K frame is some 9,000
// pages, each a fault when first touched). Pictures come not zeroed, as from
// Image::uninitialized. One pool serves one thread.

#include "base/image.h"

#include <atomic>
#include <vector>

namespace plim {

class ImagePool {
public:
    // Keeps at most `keep` pictures; more in flight at once are made and dropped as usual.
    explicit ImagePool(size_t keep = 6) : m_keep(keep) {}

    Image take(int width, int height)
    {
        for (Image& kept : m_images)
            if (kept.pixels.use_count() == 1 && kept.width == width && kept.height == height) {
                // Whoever let go of it last finished reading before we write.
                std::atomic_thread_fence(std::memory_order_acquire);
                return kept;
            }
        std::erase_if(m_images, [&](const Image& i) { return i.width != width || i.height != height; });
        Image fresh = Image::uninitialized(width, height);
        if (m_images.size() < m_keep)
            m_images.push_back(fresh);
        return fresh;
    }

private:
    size_t m_keep;
    std::vector<Image> m_images;
};

} // namespace plim
