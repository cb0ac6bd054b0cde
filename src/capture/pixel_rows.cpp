#include "capture/pixel_rows.h"

#include <emmintrin.h>

#include <cstring>

namespace plim {

void copyOpaqueRow(uint8_t* dst, const uint8_t* src, int width)
{
    const __m128i alpha = _mm_set1_epi32(static_cast<int>(0xff000000u));
    int x = 0;
    for (; x + 16 <= width; x += 16) {
        for (int k = 0; k < 4; ++k) {
            __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + (x + 4 * k) * 4));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + (x + 4 * k) * 4), _mm_or_si128(v, alpha));
        }
    }
    for (; x < width; ++x) {
        uint32_t p;
        std::memcpy(&p, src + x * 4, 4);
        p |= 0xff000000u;
        std::memcpy(dst + x * 4, &p, 4);
    }
}

} // namespace plim
