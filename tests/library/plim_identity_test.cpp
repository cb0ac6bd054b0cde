#include "library/plim_identity.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace plim;
using namespace plim::testkit;
using Ensured = PlimIdentity::Ensured;

namespace {
const std::string someUuid = "0F8E6C1A-2B3D-4E5F-8A9B-0C1D2E3F4A5B";
}

TEST(PlimIdentity, ReadTellsTheFourReadingsApart)
{
    TempDir dir;
    EXPECT_EQ(PlimIdentity::read("B", dir.path()).error().kind, Error::Kind::missing);
    writeText(dir / "B.id.json", R"({"mintedAt": "2024-03-01T10:00:00Z", "uuid": ")" + someUuid + "\"}");
    EXPECT_EQ(PlimIdentity::read("B", dir.path()), PlimIdentity({someUuid, parseIso8601("2024-03-01T10:00:00Z")}));
    // Lenient about the case, an unknown key and a missing date.
    writeText(dir / "B.id.json", R"({"uuid": "0f8e6c1a-2b3d-4e5f-8a9b-0c1d2e3f4a5b", "extra": true})");
    EXPECT_EQ(PlimIdentity::read("B", dir.path()), PlimIdentity({someUuid, std::nullopt}));

    for (const char* bad : {"", "not json", "[1, 2]", R"({"mintedAt": "2024-03-01T10:00:00Z"})",
             R"({"uuid": "not-a-uuid", "mintedAt": "2024-03-01T10:00:00Z"})", R"({"uuid": 7})"}) {
        writeText(dir / "C.id.json", bad);
        auto reading = PlimIdentity::read("C", dir.path());
        ASSERT_FALSE(reading) << bad;
        EXPECT_EQ(reading.error().kind, Error::Kind::corrupt) << bad;
        EXPECT_FALSE(reading.error().sentence.empty()) << bad;
    }
    fs::create_directory(dir / "D.id.json"); // a folder cannot be read as the file
    EXPECT_EQ(PlimIdentity::read("D", dir.path()).error(), (Error{"it is a folder, not a file", Error::Kind::unreadable}));
}

TEST(PlimIdentity, EnsureMintsOnceKeepsItAndReplacesACorruptFile)
{
    TempDir dir;
    auto now = *parseIso8601("2025-06-01T12:30:45Z") + std::chrono::milliseconds(700);
    auto first = PlimIdentity::ensure(dir / "B.mov", now);
    ASSERT_TRUE(first) << first.error().sentence;
    ASSERT_EQ(first->kind, Ensured::Kind::minted);
    EXPECT_TRUE(isUuid(first->uuid));
    const std::string bytes = readText(dir / "B.id.json");
    EXPECT_EQ(bytes, "{\n  \"mintedAt\": \"2025-06-01T12:30:45Z\",\n  \"uuid\": \"" + first->uuid + "\"\n}\n");
    EXPECT_EQ(PlimIdentity::ensure(dir / "B.mov", now + std::chrono::hours(1)), Ensured::existing(first->uuid));
    EXPECT_EQ(readText(dir / "B.id.json"), bytes);

    writeText(dir / "C.id.json", "");
    auto replaced = PlimIdentity::ensure(dir / "C.mov", now);
    EXPECT_EQ(replaced, Ensured::replaced(replaced->uuid, "the file is empty"));
    EXPECT_NE(replaced->uuid, first->uuid);
    EXPECT_EQ(PlimIdentity::read("C", dir.path())->uuid, replaced->uuid);
}

TEST(PlimIdentity, EnsureNeverOverwritesAFileItCannotRead)
{
    if (rerunUnprivileged())
        return;
    TempDir dir;
    const std::string original = R"({"uuid": ")" + someUuid + "\"}";
    writeText(dir / "B.id.json", original);
    ::chmod((dir / "B.id.json").c_str(), 0);
    EXPECT_EQ(PlimIdentity::ensure(dir / "B.mov").error().sentence,
        "The identity file " + (dir / "B.id.json").string() + " could not be read (Permission "
        "denied), so it was left exactly as it is and no new id was written. Make it readable or remove it, "
        "and Plim will give this plim an id.");
    ::chmod((dir / "B.id.json").c_str(), 0644);
    EXPECT_EQ(readText(dir / "B.id.json"), original);

    // Neither a folder nor a pipe in the file's place is read or replaced.
    fs::create_directory(dir / "D.id.json");
    writeText(dir / "D.id.json" / "inside", "kept");
    auto outcome = PlimIdentity::ensure(dir / "D.mov");
    ASSERT_FALSE(outcome);
    EXPECT_NE(outcome.error().sentence.find("could not be read (it is a folder, not a file), so it was left exactly as it is"),
        std::string::npos);
    EXPECT_EQ(readText(dir / "D.id.json" / "inside"), "kept");
    ASSERT_EQ(::mkfifo((dir / "E.id.json").c_str(), 0644), 0);
    auto pipe = PlimIdentity::ensure(dir / "E.mov");
    ASSERT_FALSE(pipe);
    EXPECT_NE(pipe.error().sentence.find("(it is not an ordinary file)"), std::string::npos);
    EXPECT_TRUE(fs::is_fifo(dir / "E.id.json"));

    EXPECT_EQ(PlimIdentity::ensure(dir / "gone" / "B.mov").error().sentence,
        "Could not write " + (dir / "gone" / "B.id.json").string() + " (No such file or directory).");
    EXPECT_FALSE(fs::exists(dir / "gone"));
}
