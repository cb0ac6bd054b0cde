#include "library/plim_identity.h"

#include "base/files.h"
#include "base/json.h"
#include "base/log.h"
#include "base/text.h"

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

Result<PlimIdentity> PlimIdentity::fromJson(const Json& json)
{
    if (!json.is_object())
        return fail("it is not a JSON object", Error::Kind::corrupt);
    auto uuid = jsonString(json, "uuid");
    if (!uuid)
        return fail("it has no uuid", Error::Kind::corrupt);
    if (!isUuid(*uuid))
        return fail("its uuid \"" + escapedText(uuid->substr(0, 64)) + "\" is not a UUID", Error::Kind::corrupt);
    PlimIdentity identity;
    identity.uuid = *uuid;
    std::ranges::transform(identity.uuid, identity.uuid.begin(), [](unsigned char c) { return std::toupper(c); });
    if (auto minted = jsonString(json, "mintedAt"))
        identity.mintedAt = parseIso8601(*minted);
    return identity;
}

fs::path PlimIdentity::pathFor(const std::string& base, const fs::path& folder)
{
    return folder / (base + "." + std::string(suffix));
}

Result<PlimIdentity> PlimIdentity::read(const std::string& base, const fs::path& folder)
{
    const fs::path path = pathFor(base, folder);
    PlimIdentity identity = PLIM_TRY(fromJson(PLIM_TRY(readJsonFile(path))));
    if (!identity.mintedAt)
        logLine(LogArea::main, path.filename().string() + " has no readable mintedAt date; its id " + identity.uuid + " is kept as it is.");
    return identity;
}

Status PlimIdentity::write(const fs::path& besideMovie) const
{
    return writeJsonAtomic(sidecarPath(besideMovie, suffix), toJson());
}

Result<PlimIdentity> PlimIdentity::mint(const fs::path& movie, SystemTime now)
{
    PlimIdentity identity = make(now);
    PLIM_TRY(identity.write(movie));
    auto back = read(baseName(movie), movie.parent_path());
    if (!back || back->uuid != identity.uuid)
        return fail("The identity was written to " + pathWithoutExtension(movie) + ".id.json and did not read "
                    "back. The plims folder may be on a volume that cannot store it.");
    return back;
}

Result<PlimIdentity::Ensured> PlimIdentity::ensure(const fs::path& movie, SystemTime now)
{
    auto reading = read(baseName(movie), movie.parent_path());
    if (reading)
        return Ensured::existing(reading->uuid);
    const Error& why = reading.error();
    if (why.kind != Error::Kind::missing && why.kind != Error::Kind::corrupt)
        return fail("The identity file " + sidecarPath(movie, suffix).string() + " could not be read (" + why.sentence
                + "), so it was left exactly as it is and no new id was written. Make it readable or remove it, "
                  "and Plim will give this plim an id.",
            why.kind);
    PlimIdentity minted = PLIM_TRY(mint(movie, now));
    if (why.kind == Error::Kind::corrupt)
        return Ensured::replaced(minted.uuid, why.sentence);
    return Ensured::minted(minted.uuid);
}

} // namespace plim
