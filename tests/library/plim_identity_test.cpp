#include "library/plim_identity.h"

#include "base/files.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace plim;
using namespace plim::testkit;

namespace {

using Kind = PlimIdentity::Reading::Kind;

const char* someUuid = "0F8E6C1A-2B3D-4E5F-8A9B-0C1D2E3F4A5B";

struct Library {
    XdgSandbox sandbox;
    fs::path folder = sandbox.videos() / "Plim";
    Library() { fs::create_directories(folder); }
    fs::path movie(const std::string& base) const
    {
        fs::path path = folder / (base + ".mov");
        writeText(path, "movie " + base);
        return path;
    }
    fs::path idFile(const std::string& base) const { return folder / (base + ".id.json"); }
};

SystemTime at(const char* iso) { return *parseIso8601(iso); }

} // namespace

TEST(PlimIdentityRead, TellsTheFourReadingsApart)
{
    Library lib;
    EXPECT_EQ(PlimIdentity::read("B", lib.folder), PlimIdentity::Reading::absent());

    writeText(lib.idFile("B"), "{\"mintedAt\": \"2024-03-01T10:00:00Z\", \"uuid\": \"" + std::string(someUuid) + "\"}");
    auto found = PlimIdentity::read("B", lib.folder);
    ASSERT_EQ(found.kind, Kind::identity);
    EXPECT_EQ(found.identity.uuid, someUuid);
    EXPECT_EQ(found.identity.mintedAt, at("2024-03-01T10:00:00Z"));

    for (const char* bad : {"", "not json", "[1, 2]", "{\"mintedAt\": \"2024-03-01T10:00:00Z\"}",
             "{\"uuid\": \"not-a-uuid\", \"mintedAt\": \"2024-03-01T10:00:00Z\"}", "{\"uuid\": 7}"}) {
        writeText(lib.idFile("C"), bad);
        auto reading = PlimIdentity::read("C", lib.folder);
        EXPECT_EQ(reading.kind, Kind::corrupt) << bad;
        EXPECT_FALSE(reading.reason.empty()) << bad;
    }

    // A folder where the file should be cannot be read as one.
    fs::create_directory(lib.idFile("D"));
    auto unreadable = PlimIdentity::read("D", lib.folder);
    EXPECT_EQ(unreadable.kind, Kind::unreadable);
    EXPECT_FALSE(unreadable.reason.empty());
}

TEST(PlimIdentityRead, IsLenientAboutCaseAndTheDate)
{
    Library lib;
    writeText(lib.idFile("B"), "{\"uuid\": \"0f8e6c1a-2b3d-4e5f-8a9b-0c1d2e3f4a5b\", \"extra\": true}");
    auto reading = PlimIdentity::read("B", lib.folder);
    ASSERT_EQ(reading.kind, Kind::identity);
    EXPECT_EQ(reading.identity.uuid, someUuid);
    EXPECT_FALSE(reading.identity.mintedAt.has_value());
}

TEST(PlimIdentityEnsure, MintsOnceAndThenKeepsTheIdentity)
{
    Library lib;
    fs::path movie = lib.movie("B");
    auto now = at("2025-06-01T12:30:45Z") + std::chrono::milliseconds(700);

    auto first = PlimIdentity::ensure(movie, now);
    ASSERT_EQ(first.kind, PlimIdentity::Outcome::Kind::minted) << first.reason;
    EXPECT_TRUE(isUuid(first.uuid));
    std::string bytes = readText(lib.idFile("B"));
    EXPECT_EQ(bytes, "{\n  \"mintedAt\": \"2025-06-01T12:30:45Z\",\n  \"uuid\": \"" + first.uuid + "\"\n}\n");

    auto second = PlimIdentity::ensure(movie, now + std::chrono::hours(1));
    EXPECT_EQ(second, PlimIdentity::Outcome::existing(first.uuid));
    EXPECT_EQ(readText(lib.idFile("B")), bytes);

    // Another movie gets another id.
    auto other = PlimIdentity::ensure(lib.movie("C"), now);
    ASSERT_EQ(other.kind, PlimIdentity::Outcome::Kind::minted);
    EXPECT_NE(other.uuid, first.uuid);
}

TEST(PlimIdentityEnsure, ReplacesAZeroByteFile)
{
    Library lib;
    fs::path movie = lib.movie("B");
    writeText(lib.idFile("B"), "");
    auto outcome = PlimIdentity::ensure(movie);
    ASSERT_EQ(outcome.kind, PlimIdentity::Outcome::Kind::replaced);
    EXPECT_EQ(outcome.reason, "the file is empty");
    auto reading = PlimIdentity::read("B", lib.folder);
    ASSERT_EQ(reading.kind, Kind::identity);
    EXPECT_EQ(reading.identity.uuid, outcome.uuid);
}

TEST(PlimIdentityEnsure, NeverOverwritesAnUnreadableFile)
{
    Library lib;
    fs::path movie = lib.movie("B");
    const std::string original = "{\"uuid\": \"" + std::string(someUuid) + "\"}";
    writeText(lib.idFile("B"), original);
    ::chmod(lib.idFile("B").c_str(), 0);
    if (geteuid() != 0) {
        auto outcome = PlimIdentity::ensure(movie);
        ASSERT_EQ(outcome.kind, PlimIdentity::Outcome::Kind::failed);
        EXPECT_EQ(outcome.reason, "The identity file " + lib.idFile("B").string()
                + " could not be read (Permission denied), so it was left exactly as it is and no new id was "
                  "written. Make it readable or remove it, and Plim will give this plim an id.");
        ::chmod(lib.idFile("B").c_str(), 0644);
        EXPECT_EQ(readText(lib.idFile("B")), original);
    }

    // A folder in the file's place is unreadable for everyone, root included.
    fs::path folderMovie = lib.movie("D");
    fs::create_directory(lib.idFile("D"));
    writeText(lib.idFile("D") / "inside", "kept");
    auto outcome = PlimIdentity::ensure(folderMovie);
    ASSERT_EQ(outcome.kind, PlimIdentity::Outcome::Kind::failed);
    EXPECT_NE(outcome.reason.find("left exactly as it is"), std::string::npos);
    EXPECT_TRUE(fs::is_directory(lib.idFile("D")));
    EXPECT_EQ(readText(lib.idFile("D") / "inside"), "kept");
}

TEST(PlimIdentityEnsure, AWriteErrorFailsWithItsSentence)
{
    Library lib;
    fs::path movie = lib.folder / "gone" / "B.mov";
    auto outcome = PlimIdentity::ensure(movie);
    ASSERT_EQ(outcome.kind, PlimIdentity::Outcome::Kind::failed);
    EXPECT_EQ(outcome.reason, "Could not write " + (lib.folder / "gone" / "B.id.json").string() + " (No such file or directory).");
    EXPECT_FALSE(fs::exists(lib.folder / "gone"));
}
