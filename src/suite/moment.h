#pragma once
// A moment: one record of the suite's shared history, kept as one JSON line in its
// app's stream file. Moments are never edited; a "retracted" moment hides an earlier
// one and a "restored" moment shows it again.

#include "base/error.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace plim {

struct Moment {
    // Instants are kept to the millisecond, as the line format writes them.
    using Instant = std::chrono::sys_time<std::chrono::milliseconds>;

    static constexpr int64_t currentSchemaVersion = 1;
    static constexpr std::string_view retractedKind = "retracted";
    static constexpr std::string_view restoredKind = "restored";

    struct Entity {
        std::string type;
        std::string name;
        bool operator==(const Entity&) const = default;
    };

    // Names the moment that a bookkeeping moment hides or shows again: by the app and
    // instant, and optionally by the app's own identifier of the thing.
    struct Retraction {
        std::string app;
        Instant ts{};
        std::optional<std::string> source;
        bool operator==(const Retraction&) const = default;

        // Which targets are hidden right now. For each target the latest bookkeeping
        // moment decides: "retracted" hides it, "restored" shows it again.
        class Index {
        public:
            struct Decision {
                bool hidden = false;
                Instant decidedAt{};
                bool operator==(const Decision&) const = default;
            };
            // Keyed by app and instant text, and by app and source.
            std::map<std::string, Decision> byInstant;
            std::map<std::string, Decision> bySource;

            // Takes in one moment; anything but a bookkeeping moment with a target is ignored.
            void add(const Moment& moment);
            // True when the moment is the target of a retraction still in force.
            bool claims(const Moment& moment) const;
            bool empty() const { return byInstant.empty() && bySource.empty(); }
        };
    };

    int64_t schemaVersion = currentSchemaVersion;
    Instant ts{};
    std::string app;
    std::string kind;
    std::string title;
    std::optional<std::string> detail;
    std::vector<Entity> entities;
    bool sensitive = false;
    std::optional<std::string> source;
    std::optional<Retraction> retracts;

    bool operator==(const Moment&) const = default;

    bool isBookkeeping() const { return kind == retractedKind || kind == restoredKind; }

    // The moment as one line of JSON, without the final line feed. Fails when a text is
    // not valid UTF-8, or when the encoding would hold a raw line feed.
    Result<std::string> jsonLine() const;

    // The reverse of jsonLine(). Nothing when the line is not a moment. Entities that
    // lack a key or have the wrong type are dropped; the rest of the moment is kept.
    static std::optional<Moment> fromJsonLine(std::string_view line);
};

// "2026-11-14T22:15:44.123Z": UTC with milliseconds.
std::string formatMomentTime(Moment::Instant instant);
// Reads the fractional form first and, failing that, the whole-second form.
std::optional<Moment::Instant> parseMomentTime(std::string_view text);
// The current wall-clock instant, to the millisecond.
Moment::Instant momentNow();

// Lowercase ASCII letters and digits only, at least one.
bool isValidAppSlug(std::string_view slug);
// The sentence for a slug that is not valid.
std::string invalidAppSlugSentence(std::string_view slug);

// Which moments a reader returns. Unset filters let everything through.
struct MomentQuery {
    std::optional<std::set<std::string>> apps;
    std::optional<std::set<std::string>> kinds;
    std::optional<std::string> entityName; // compared ignoring case
    std::optional<std::string> entityType; // narrows entityName to entities of this type
    std::optional<Moment::Instant> from;   // inclusive
    std::optional<Moment::Instant> to;     // inclusive
    bool includeSensitive = false;

    bool operator==(const MomentQuery&) const = default;

    bool matches(const Moment& moment) const;
};

// True when the two texts are equal ignoring case (Unicode simple case folding where the
// system knows it, ASCII otherwise).
bool equalsIgnoringCase(std::string_view a, std::string_view b);

} // namespace plim
