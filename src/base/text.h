#pragma once
// Small text helpers shared by readers and sentences.

#include <string>
#include <string_view>

namespace plim {

// The text without leading and trailing white space.
std::string trimmed(std::string_view text);

} // namespace plim
