#pragma once
// What a lenient decoder hands back: the value it could make of the input, and the
// notices about what it had to drop or repair on the way. The caller decides whether
// to log them, show them or ignore them; decoders never log on their own.

#include <string>
#include <utility>
#include <vector>

namespace plim {

template<typename T>
struct Decoded {
    T value;
    std::vector<std::string> notices;
};

// Appends another decoder's notices to these.
inline void appendNotices(std::vector<std::string>& into, std::vector<std::string> more)
{
    into.insert(into.end(), std::make_move_iterator(more.begin()), std::make_move_iterator(more.end()));
}

} // namespace plim
