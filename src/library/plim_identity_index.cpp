#include "library/plim_identity_index.h"

#include "base/text.h"
#include "library/plim_record.h"

#include <map>

namespace plim {

namespace {



// "A", "A" and "B", "A", "B" and "C".
std::string listed(const std::vector<std::string>& names)
{
    std::string out;
    for (size_t i = 0; i < names.size(); ++i) {
        if (i > 0)
            out += i + 1 == names.size() ? " and " : ", ";
        out += quoted(names[i]);
    }
    return out;
}

std::string listedInline(const std::vector<std::string>& names)
{
    std::string out;
    for (size_t i = 0; i < names.size(); ++i)
        out += (i > 0 ? ", " : "") + quoted(names[i]);
    return out;
}

} // namespace

std::optional<std::string> PlimIdentityIndex::original(const std::vector<std::string>& names)
{
    if (names.empty())
        return std::nullopt;
    if (names.size() < 2)
        return names.front();
    for (const std::string& candidate : names) {
        bool containedByAll = true;
        for (const std::string& other : names)
            if (other.find(candidate) == std::string::npos) {
                containedByAll = false;
                break;
            }
        if (containedByAll)
            return candidate;
    }
    return names.front();
}

std::optional<std::string> PlimIdentityIndex::uuid(const std::string& base) const
{
    auto it = uuidsByBase.find(base);
    return it == uuidsByBase.end() ? std::nullopt : std::optional(it->second);
}

std::optional<std::string> PlimIdentityIndex::base(const std::string& id) const
{
    auto it = basesByUUID.find(id);
    return it == basesByUUID.end() ? std::nullopt : std::optional(it->second);
}

PlimIdentityIndex PlimIdentityIndex::reconcile(const std::vector<std::string>& movies, const fs::path& folder, SystemTime now)
{
    PlimIdentityIndex index;
    std::vector<std::string> bases;
    std::map<std::string, std::string> movieNames;
    for (const std::string& movie : movies) {
        std::string base = fs::path(movie).stem().string();
        if (movieNames.emplace(base, movie).second)
            bases.push_back(std::move(base));
    }
    auto movieFor = [&](const std::string& base) { return folder / movieNames.at(base); };
    auto join = [&](const std::string& base, const std::string& id) {
        index.basesByUUID[id] = base;
        index.uuidsByBase[base] = id;
    };
    auto repair = [&](const std::string& base, const Repair& why) {
        auto minted = PlimIdentity::mint(movieFor(base), now);
        if (!minted) {
            index.report.unresolved[base] = clause(minted.error().sentence);
            return;
        }
        join(base, minted->uuid);
        switch (why.kind) {
        case Repair::Kind::absent: index.report.minted.push_back(base); break;
        case Repair::Kind::corrupt: index.report.replaced[base] = why.text; break;
        case Repair::Kind::duplicate: break; // reported with its conflict
        }
    };

    // 1. Read every identity, in library order.
    struct Held {
        std::string base;
        PlimIdentity identity;
    };
    std::vector<Held> held;
    for (const std::string& base : bases) {
        auto reading = PlimIdentity::read(base, folder);
        if (reading)
            held.push_back({base, *reading});
        else if (reading.error().kind == Error::Kind::missing)
            repair(base, {Repair::Kind::absent, {}});
        else if (reading.error().kind == Error::Kind::corrupt)
            repair(base, {Repair::Kind::corrupt, reading.error().sentence});
        else
            index.report.unresolved[base] = base + "." + std::string(PlimIdentity::suffix) + " could not be read: " + reading.error().sentence;
    }

    // 2. Duplicates: the original keeps the id, every other name gets a new one.
    std::vector<std::string> uuidOrder;
    std::map<std::string, std::vector<const Held*>> carriers;
    for (const Held& entry : held) {
        auto& list = carriers[entry.identity.uuid];
        if (list.empty())
            uuidOrder.push_back(entry.identity.uuid);
        list.push_back(&entry);
    }
    std::vector<const Held*> kept;
    for (const std::string& id : uuidOrder) {
        const auto& list = carriers[id];
        if (list.size() == 1) {
            kept.push_back(list.front());
            continue;
        }
        std::vector<std::string> names;
        for (const Held* entry : list)
            names.push_back(entry->base);
        const std::string keeper = *original(names);
        index.report.conflicted[id] = names;
        for (const Held* entry : list) {
            if (entry->base == keeper)
                kept.push_back(entry);
            else
                repair(entry->base, {Repair::Kind::duplicate, {}});
        }
    }

    // 3. Footage created after its id was minted: reported, never changed.
    for (const Held* entry : kept) {
        join(entry->base, entry->identity.uuid);
        if (!entry->identity.mintedAt)
            continue;
        auto created = fileCreationDate(movieFor(entry->base));
        if (!created)
            continue;
        // Ids keep whole seconds, so compare at that resolution.
        auto createdSecond = std::chrono::floor<std::chrono::seconds>(*created);
        if (createdSecond > *entry->identity.mintedAt)
            index.report.mismatched[entry->base] = {*entry->identity.mintedAt, *created, movieNames.at(entry->base)};
    }
    return index;
}

bool PlimIdentityIndex::Report::empty() const
{
    return minted.empty() && replaced.empty() && conflicted.empty() && unresolved.empty() && mismatched.empty();
}

std::vector<std::string> PlimIdentityIndex::Report::sentences() const
{
    const std::string idSuffix = "." + std::string(PlimIdentity::suffix);
    std::vector<std::string> out;

    if (!minted.empty()) {
        std::string who = minted.size() == 1 ? quoted(minted.front())
            : minted.size() <= 3              ? listed(minted) + " each"
                                              : std::to_string(minted.size()) + " plims each";
        out.push_back("Plim gave " + who + " a permanent id so projects can keep pointing at "
            + (minted.size() == 1 ? "it" : "them") + " after a rename.");
    }

    for (const auto& [base, reason] : replaced)
        out.push_back("\"" + base + idSuffix + "\" could be read but was not a plim id (" + reason + "), so "
            + quoted(base) + " was given a new one. Anything that referenced its old id will no longer find it.");

    for (const auto& [id, names] : conflicted) {
        const std::string keeper = original(names).value_or("");
        std::vector<std::string> others;
        for (const std::string& name : names)
            if (name != keeper)
                others.push_back(name);
        out.push_back(std::to_string(names.size()) + " plims carried the same id (" + id + "), "
            "which happens when plim files are duplicated or restored in the file manager. " + quoted(keeper)
            + " kept it, and the others (" + listedInline(others) + ") were given new ids, so each plim can be referenced on "
            "its own. Plim leaves the id with the plim whose name the others read as "
            "copies of, and with the first name in order when no name looks like a copy.");
    }

    for (const auto& [base, reason] : unresolved)
        out.push_back(quoted(base) + " has no permanent id and one could not be written (" + reason
            + "). It was left exactly as it is rather than "
              "overwritten. A project cannot reference this plim until that file can be "
              "read or removed.");

    for (const auto& [base, mismatch] : mismatched)
        out.push_back(quoted(mismatch.movie) + " was created on " + readableDate(mismatch.movieCreatedAt)
            + ", after the id in \"" + base + idSuffix + "\" was minted on " + readableDate(mismatch.mintedAt) + ", so "
            "that id was not minted for this movie. That is what renaming plim files in "
            "the file manager leaves behind: the id stays with the name while the footage moves. "
            "Nothing was changed, so anything referencing that id still resolves to " + quoted(base)
            + " and may be playing the wrong plim. Put the files back under the "
              "names they had, or delete \"" + base + idSuffix + "\" so " + quoted(base) + " is given an id of its own.");
    return out;
}

} // namespace plim
