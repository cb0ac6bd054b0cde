#pragma once
// Why a staged or reframed render did not finish, as the sentence the user reads.

#include "base/error.h"

#include <string>
#include <variant>

namespace plim {

struct StagingError {
    struct Unreadable {
        std::string reason; // "it could not be opened", "it has no picture", ...
        bool operator==(const Unreadable&) const = default;
    };
    // A movie the render cannot use at all; the sentence says why and what to do.
    struct Unusable {
        std::string sentence;
        bool operator==(const Unusable&) const = default;
    };
    struct WriterFailed {
        std::string reason; // "the file could not be finished", "the disk is full", ...
        bool noSpace = false;
        bool operator==(const WriterFailed&) const = default;
    };
    struct Stalled {
        double seconds = 30;
        bool operator==(const Stalled&) const = default;
    };
    struct EmptyEdit {
        bool operator==(const EmptyEdit&) const = default;
    };

    std::variant<Unreadable, Unusable, WriterFailed, Stalled, EmptyEdit> value;
    bool operator==(const StagingError&) const = default;

    static StagingError unreadable(std::string reason) { return {Unreadable{std::move(reason)}}; }
    static StagingError unusable(std::string sentence) { return {Unusable{std::move(sentence)}}; }
    static StagingError writerFailed(std::string reason, bool noSpace = false)
    {
        return {WriterFailed{std::move(reason), noSpace}};
    }
    static StagingError stalled(double seconds) { return {Stalled{seconds}}; }
    static StagingError emptyEdit() { return {EmptyEdit{}}; }

    // What happened, that nothing was saved and the plim is untouched, and what to do.
    std::string sentence() const;
    Error error() const;
};

// The sentence a render gives when it was stopped.
inline constexpr const char* stagingStoppedSentence = "Stopped. Nothing was saved.";

} // namespace plim
