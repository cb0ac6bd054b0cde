#include "suite/bus_transport.h"

namespace plim {

namespace {

bool isNameElement(std::string_view element)
{
    if (element.empty() || (element[0] >= '0' && element[0] <= '9'))
        return false;
    for (char c : element)
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_'))
            return false;
    return true;
}

} // namespace

std::optional<std::pair<std::string, std::string>> splitBusName(std::string_view name)
{
    size_t dot = name.rfind('.');
    if (dot == std::string_view::npos || name.size() > 255)
        return std::nullopt;
    std::string_view interface = name.substr(0, dot);
    std::string_view member = name.substr(dot + 1);
    if (!isNameElement(member) || interface.find('.') == std::string_view::npos)
        return std::nullopt;
    for (size_t start = 0;;) {
        size_t end = interface.find('.', start);
        if (!isNameElement(interface.substr(start, end == std::string_view::npos ? end : end - start)))
            return std::nullopt;
        if (end == std::string_view::npos)
            break;
        start = end + 1;
    }
    return std::pair{std::string(interface), std::string(member)};
}

} // namespace plim
