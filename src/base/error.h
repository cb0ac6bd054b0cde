#pragma once
// Errors travel as values: a whole sentence the user can read, never an exception
// across a subsystem's header. PLIM_TRY unwraps a Result or returns its error;
// PLIM_MUST unwraps one that cannot fail unless the program itself is wrong.
//
// Engines (staging, sharing, recording) end with an Outcome: finished with a value,
// failed with a sentence, or stopped because the caller asked through its stop token.

#include <cstdio>
#include <cstdlib>
#include <expected>
#include <stop_token>
#include <string>
#include <utility>

namespace plim {

struct Error {
    // What went wrong, for callers that react differently (a missing file is often fine;
    // an unreadable one must be left alone). The sentence is what the user reads.
    enum class Kind {
        failed,     // anything else
        missing,    // the thing does not exist
        unreadable, // it exists but cannot be read (permission, not an ordinary file, far too large)
        corrupt,    // it was read but its contents make no sense (not JSON, not the expected shape)
        refused,    // it is understood but must not be used (newer version, wrong kind)
        stopped,    // the caller asked to stop
        noSpace,    // the disk or the folder is full
    };

    std::string sentence;
    Kind kind = Kind::failed;
    bool operator==(const Error&) const = default;
};

template<typename T>
using Result = std::expected<T, Error>;

using Status = std::expected<void, Error>;

inline std::unexpected<Error> fail(std::string sentence, Error::Kind kind = Error::Kind::failed)
{
    return std::unexpected(Error{std::move(sentence), kind});
}

// What a long-running engine ends with.
template<typename T>
struct Outcome {
    enum class Kind { finished, failed, stopped };
    Kind kind = Kind::stopped;
    T value{};            // meaningful when finished
    std::string sentence; // meaningful when failed; may be set when stopped

    static Outcome finished(T v) { return {Kind::finished, std::move(v), {}}; }
    static Outcome failed(std::string s) { return {Kind::failed, T{}, std::move(s)}; }
    static Outcome stopped(std::string s = {}) { return {Kind::stopped, T{}, std::move(s)}; }
    // An error becomes a failure, or a stop when that is what it says.
    static Outcome from(Error e)
    {
        return e.kind == Error::Kind::stopped ? stopped(std::move(e.sentence)) : failed(std::move(e.sentence));
    }
    static Outcome from(Result<T> r) { return r ? finished(std::move(*r)) : from(std::move(r.error())); }

    bool isFinished() const { return kind == Kind::finished; }
    bool isStopped() const { return kind == Kind::stopped; }
    bool isFailed() const { return kind == Kind::failed; }
};

// Engines take a std::stop_token and look at it between units of work (a frame, a block).
using StopToken = std::stop_token;
using StopSource = std::stop_source;

namespace detail {
template<typename T, typename E>
T releaseValue(std::expected<T, E>& result) { return std::move(*result); }
template<typename E>
void releaseValue(std::expected<void, E>&) {}

[[noreturn]] inline void mustFailed(const char* expr, const std::string& sentence, const char* file, int line)
{
    std::fprintf(stderr, "%s:%d: %s failed: %s\n", file, line, expr, sentence.c_str());
    std::abort();
}
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

// Evaluates a Result/Status that can only fail through a programming error; aborts with
// the sentence when it does, otherwise yields the value.
#define PLIM_MUST(expr)                                                                  \
    ({                                                                                   \
        auto _plim_must_result = (expr);                                                 \
        if (!_plim_must_result)                                                          \
            ::plim::detail::mustFailed(#expr, _plim_must_result.error().sentence, __FILE__, __LINE__); \
        ::plim::detail::releaseValue(_plim_must_result);                                 \
    })
