#pragma once
// Errors travel as values: a whole sentence the user can read, never an exception
// across a subsystem's header. PLIM_TRY unwraps a Result or returns its error.

#include <expected>
#include <string>
#include <utility>

namespace plim {

struct Error {
    std::string sentence;
    bool operator==(const Error&) const = default;
};

template<typename T>
using Result = std::expected<T, Error>;

using Status = std::expected<void, Error>;

inline std::unexpected<Error> fail(std::string sentence) { return std::unexpected(Error{std::move(sentence)}); }

// What a long-running engine ends with.
template<typename T>
struct Outcome {
    enum class Kind { finished, failed, stopped };
    Kind kind = Kind::stopped;
    T value{};            // meaningful when finished
    std::string sentence; // meaningful when failed

    static Outcome finished(T v) { return {Kind::finished, std::move(v), {}}; }
    static Outcome failed(std::string s) { return {Kind::failed, T{}, std::move(s)}; }
    static Outcome stopped() { return {Kind::stopped, T{}, {}}; }
    bool isFinished() const { return kind == Kind::finished; }
};

namespace detail {
template<typename T, typename E>
T releaseValue(std::expected<T, E>& result) { return std::move(*result); }
template<typename E>
void releaseValue(std::expected<void, E>&) {}
}

} // namespace plim

// Evaluates a Result/Status expression; on error returns it from the enclosing function,
// otherwise yields the value.
#define PLIM_TRY(expr)                                            \
    ({                                                            \
        auto _plim_try_result = (expr);                           \
        if (!_plim_try_result)                                    \
            return std::unexpected(std::move(_plim_try_result.error())); \
        ::plim::detail::releaseValue(_plim_try_result);           \
    })
