#pragma once
// Rows of screen pixels into Plim's pictures (BGRA, alpha set): the desktops hand out
// 32-bit pixels whose fourth byte is undefined.

#include <cstdint>

namespace plim {

// Copies one row of BGRX pixels into BGRA with the alpha byte set.
void copyOpaqueRow(uint8_t* dst, const uint8_t* src, int width);

} // namespace plim
