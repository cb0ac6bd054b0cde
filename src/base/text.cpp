#include "base/text.h"

namespace plim {

std::string trimmed(std::string_view text)
{
    constexpr std::string_view space = " \t\r\n\f\v";
    auto first = text.find_first_not_of(space);
    if (first == std::string_view::npos)
        return {};
    auto last = text.find_last_not_of(space);
    return std::string(text.substr(first, last - first + 1));
}

} // namespace plim
