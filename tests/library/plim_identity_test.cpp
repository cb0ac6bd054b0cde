#include "library/plim_identity.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace plim;
using namespace plim::testkit;
using Reading = PlimIdentity::Reading;
using Ensured = PlimIdentity::Outcome;

namespace {
const std::string someUuid = "0F8E6C1A-2B3D-4E5F-8A9B-0C1D2E3F4A5B";
}

TEST(PlimIdentity, ReadTellsTheFourReadingsApart)
{
    TempDir dir;
    EXPECT_EQ(PlimIdentity::read("B", dir.path()), Reading::absent());
    writeText(dir / "B.id.json", R"({"mintedAt": "2024-03-01T10:00:00Z", "uuid": ")" + someUuid + "\"}");
    EXPECT_EQ(PlimIdentity::read("B", dir.path()), Reading::found({someUuid, parseIso8601("2024-03-01T10:00:00Z")}));
    // Lenient about the case, an unknown key and a missing date.
    writeText(dir / "B.id.json", R"({"uuid": "0f8e6c1a-2b3d-4e5f-8a9b-0c1d2e3f4a5b", "extra": true})");
    EXPECT_EQ(PlimIdentity::read("B", dir.path()), Reading::found({someUuid, std::nullopt}));

    for (const char* bad : {"", "not json", "[1, 2]", R"({"mintedAt": "2024-03-01T10:00:00Z"})",
             R"({"uuid": "not-a-uuid", "mintedAt": "2024-03-01T10:00:00Z"})", R"({"uuid": 7})"}) {
        writeText(dir / "C.id.json", bad);
        auto reading = PlimIdentity::read("C", dir.path());
        EXPECT_EQ(reading.kind, Reading::Kind::corrupt) << bad;
        EXPECT_FALSE(reading.reason.empty()) << bad;
    }
    fs::create_directory(dir / "D.id.json"); // a folder cannot be read as the file
    EXPECT_EQ(PlimIdentity::read("D", dir.path()).kind, Reading::Kind::unreadable);
}

TEST(PlimIdentity, EnsureMintsOnceKeepsItAndReplacesACorruptFile)
{
    TempDir dir;
    auto now = *parseIso8601("2025-06-01T12:30:45Z") + std::chrono::milliseconds(700);
    auto first = PlimIdentity::ensure(dir / "B.mov", now);
    ASSERT_EQ(first.kind, Ensured::Kind::minted) << first.reason;
    EXPECT_TRUE(isUuid(first.uuid));
    const std::string bytes = readText(dir / "B.id.json");
    EXPECT_EQ(bytes, "{\n  \"mintedAt\": \"2025-06-01T12:30:45Z\",\n  \"uuid\": \"" + first.uuid + "\"\n}\n");
    EXPECT_EQ(PlimIdentity::ensure(dir / "B.mov", now + std::chrono::hours(1)), Ensured::existing(first.uuid));
    EXPECT_EQ(readText(dir / "B.id.json"), bytes);

    writeText(dir / "C.id.json", "");
    auto replaced = PlimIdentity::ensure(dir / "C.mov", now);
    ASSERT_EQ(replaced.kind, Ensured::Kind::replaced);
    EXPECT_EQ(replaced.reason, "the file is empty");
    EXPECT_NE(replaced.uuid, first.uuid);
    EXPECT_EQ(PlimIdentity::read("C", dir.path()).identity.uuid, replaced.uuid);
}

TEST(PlimIdentity, EnsureNeverOverwritesAFileItCannotRead)
{
    TempDir dir;
    if (geteuid() != 0) {
        const std::string original = R"({"uuid": ")" + someUuid + "\"}";
        writeText(dir / "B.id.json", original);
        ::chmod((dir / "B.id.json").c_str(), 0);
        EXPECT_EQ(PlimIdentity::ensure(dir / "B.mov"),
            Ensured::failed("The identity file " + (dir / "B.id.json").string() + " could not be read (Permission "
                "denied), so it was left exactly as it is and no new id was written. Make it readable or remove it, "
                "and Plim will give this plim an id."));
        ::chmod((dir / "B.id.json").c_str(), 0644);
        EXPECT_EQ(readText(dir / "B.id.json"), original);
    }
    // A folder in the file's place is unreadable for everyone, root included.
    fs::create_directory(dir / "D.id.json");
    writeText(dir / "D.id.json" / "inside", "kept");
    auto outcome = PlimIdentity::ensure(dir / "D.mov");
    EXPECT_EQ(outcome.kind, Ensured::Kind::failed);
    EXPECT_NE(outcome.reason.find("could not be read (Is a directory), so it was left exactly as it is"), std::string::npos);
    EXPECT_EQ(readText(dir / "D.id.json" / "inside"), "kept");

    EXPECT_EQ(PlimIdentity::ensure(dir / "gone" / "B.mov"),
        Ensured::failed("Could not write " + (dir / "gone" / "B.id.json").string() + " (No such file or directory)."));
    EXPECT_FALSE(fs::exists(dir / "gone"));
}
