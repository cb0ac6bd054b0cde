#include "suite/suite.h"

#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    auto moment = plim::Moment::fromJsonLine(std::string_view(reinterpret_cast<const char*>(data), size));
    if (moment) {
        // What decodes must encode again.
        auto line = moment->jsonLine();
        (void)line;
    }
    return 0;
}
