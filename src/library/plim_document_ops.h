#pragma once
// Helpers shared by the files that implement PlimDocument's operations.

#include <algorithm>
#include <cmath>
#include <string_view>
#include <vector>

namespace plim::document_detail {

inline bool finite(double v) { return std::isfinite(v); }

template<typename T>
T* findByID(std::vector<T>& items, std::string_view id)
{
    auto it = std::find_if(items.begin(), items.end(), [&](const T& item) { return item.id == id; });
    return it == items.end() ? nullptr : &*it;
}

template<typename T>
void eraseByID(std::vector<T>& items, std::string_view id)
{
    std::erase_if(items, [&](const T& item) { return item.id == id; });
}

} // namespace plim::document_detail
