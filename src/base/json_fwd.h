#pragma once
// The JSON value's name, for headers that only pass values in and out. Code that builds or
// reads values includes base/json.h.

#include <nlohmann/json_fwd.hpp>

namespace plim {

using Json = nlohmann::json;

} // namespace plim
