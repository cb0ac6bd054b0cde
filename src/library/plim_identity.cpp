#include "library/plim_identity.h"

#include "base/files.h"
#include "base/log.h"

#include <algorithm>
#include <cctype>

namespace plim {

PlimIdentity PlimIdentity::make(SystemTime now)
{
    return {makeUuid(), std::chrono::floor<std::chrono::seconds>(now)};
}

Json PlimIdentity::toJson() const
{
    Json json = Json::object();
    json["uuid"] = uuid;
    if (mintedAt)
        json["mintedAt"] = iso8601(*mintedAt);
    return json;
}

std::expected<PlimIdentity, std::string> PlimIdentity::fromJson(const Json& json)
{
    if (!json.is_object())
        return std::unexpected(std::string("it is not a JSON object"));
    auto uuid = jsonString(json, "uuid");
    if (!uuid)
        return std::unexpected(std::string("it has no uuid"));
    if (!isUuid(*uuid))
        return std::unexpected("its uuid \"" + uuid->substr(0, 64) + "\" is not a UUID");
    PlimIdentity identity;
    identity.uuid = *uuid;
    std::ranges::transform(identity.uuid, identity.uuid.begin(), [](unsigned char c) { return std::toupper(c); });
    if (auto minted = jsonString(json, "mintedAt"))
        identity.mintedAt = parseIso8601(*minted);
    return identity;
}

fs::path PlimIdentity::pathFor(const std::string& base, const fs::path& folder)
{
    return folder / (base + "." + suffix);
}

PlimIdentity::Reading PlimIdentity::read(const std::string& base, const fs::path& folder)
{
    const fs::path path = pathFor(base, folder);
    auto json = readJsonFile(path);
    if (!json) {
        switch (json.error().kind) {
        case JsonReadFailure::absent: return Reading::absent();
        case JsonReadFailure::unreadable: return Reading::unreadable(json.error().reason);
        case JsonReadFailure::corrupt: return Reading::corrupt(json.error().reason);
        }
    }
    auto identity = fromJson(*json);
    if (!identity)
        return Reading::corrupt(identity.error());
    if (!identity->mintedAt)
        logLine(LogArea::main, path.filename().string() + " has no readable mintedAt date; its id " + identity->uuid + " is kept as it is.");
    return Reading::found(std::move(*identity));
}

Status PlimIdentity::write(const fs::path& besideMovie) const
{
    return writeJsonAtomic(sidecarPath(besideMovie, suffix), toJson());
}

Result<PlimIdentity> PlimIdentity::mint(const fs::path& movie, SystemTime now)
{
    PlimIdentity identity = make(now);
    if (Status written = identity.write(movie); !written)
        return std::unexpected(written.error());
    Reading back = read(baseName(movie), movie.parent_path());
    if (back.kind != Reading::Kind::identity || back.identity.uuid != identity.uuid)
        return fail("The identity was written to " + pathWithoutExtension(movie) + ".id.json and did not read "
                    "back. The plims folder may be on a volume that cannot store it.");
    return back.identity;
}

PlimIdentity::Outcome PlimIdentity::ensure(const fs::path& movie, SystemTime now)
{
    Reading reading = read(baseName(movie), movie.parent_path());
    switch (reading.kind) {
    case Reading::Kind::identity:
        return Outcome::existing(reading.identity.uuid);
    case Reading::Kind::unreadable:
        return Outcome::failed("The identity file " + sidecarPath(movie, suffix).string() + " could not be read ("
            + reading.reason + "), so it was left exactly as it is and no new id was written. Make it readable or "
            "remove it, and Plim will give this plim an id.");
    case Reading::Kind::absent:
    case Reading::Kind::corrupt:
        break;
    }
    auto minted = mint(movie, now);
    if (!minted)
        return Outcome::failed(minted.error().sentence);
    if (reading.kind == Reading::Kind::corrupt)
        return Outcome::replaced(minted->uuid, reading.reason);
    return Outcome::minted(minted->uuid);
}

} // namespace plim
