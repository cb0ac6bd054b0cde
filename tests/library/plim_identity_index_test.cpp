#include "library/plim_identity.h"
#include "library/plim_identity_index.h"
#include "library/plim_record.h"
#include "testkit/testkit.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace plim;
using namespace plim::testkit;

namespace {

struct Library {
    TempDir folder;
    // Writes B.mov and, when given, B.id.json holding `uuid` minted at `mintedAt` (by default far in the future, so
    // no movie made by the test looks newer than its id).
    void plim(const std::string& base, const std::string& uuid = {}, const std::string& mintedAt = "2100-01-01T00:00:00Z")
    {
        writeText(folder / (base + ".mov"), "movie " + base);
        if (!uuid.empty())
            writeText(idFile(base), "{\n  \"mintedAt\": \"" + mintedAt + "\",\n  \"uuid\": \"" + uuid + "\"\n}\n");
    }
    fs::path idFile(const std::string& base) const { return folder / (base + ".id.json"); }
    std::string onDisk(const std::string& base) const { return PlimIdentity::read(base, folder.path()).value_or(PlimIdentity{}).uuid; }
    PlimIdentityIndex reconcile(const std::vector<std::string>& bases) const
    {
        std::vector<std::string> movies;
        for (const std::string& base : bases)
            movies.push_back(base + ".mov");
        return PlimIdentityIndex::reconcile(movies, folder.path());
    }
};

const std::string sharedB = "11111111-2222-4333-8444-555555555555";
const std::string sharedX = "22222222-2222-4333-8444-555555555555";
const std::string sharedM = "33333333-2222-4333-8444-555555555555";
const std::string someUuid = "0F8E6C1A-2B3D-4E5F-8A9B-0C1D2E3F4A5B";
using Ensured = PlimIdentity::Ensured;

std::string conflict(const std::string& count, const std::string& id, const std::string& keeper, const std::string& others)
{
    return count + " plims carried the same id (" + id + "), which happens when plim files are duplicated or restored "
        "in the file manager. \"" + keeper + "\" kept it, and the others (" + others + ") were given new ids, so each "
        "plim can be referenced on its own. Plim leaves the id with the plim whose name the others read as copies of, "
        "and with the first name in order when no name looks like a copy.";
}

} // namespace

TEST(PlimIdentityIndex, TheOriginalIsTheNameEveryOtherContains)
{
    using V = std::vector<std::string>;
    for (auto [names, original] : std::vector<std::pair<V, std::optional<std::string>>>{{{}, std::nullopt},
             {{"Solo"}, "Solo"}, {{"B", "B copy"}, "B"}, {{"B copy", "B 2", "B"}, "B"}, {{"X 2", "X 3", "Y"}, "X 2"},
             {{"Demo copy", "Other"}, "Demo copy"}})
        EXPECT_EQ(PlimIdentityIndex::original(names), original) << testing::PrintToString(names);
}

TEST(PlimIdentityIndex, ReconcilesOnceReportsInOrderAndLeavesWhatItCannotReadAlone)
{
    Library lib;
    for (const char* base : {"A", "Empty", "Garbled", "Locked"})
        lib.plim(base);
    writeText(lib.idFile("Empty"), "");
    writeText(lib.idFile("Garbled"), "{\"uuid\": \"nope\"}");
    fs::create_directory(lib.idFile("Locked"));
    for (const char* base : {"B", "B copy"})
        lib.plim(base, sharedB);
    for (const char* base : {"X 2", "X 3", "Y"})
        lib.plim(base, sharedX);
    lib.plim("M", sharedM, "2020-02-03T04:05:06Z"); // minted before its movie was made
    lib.plim("Gone", "CCCCCCCC-2222-4333-8444-555555555555", "2020-02-03T04:05:06Z");
    fs::remove(lib.folder / "Gone.mov"); // without its movie there is no date to compare
    const std::string bBytes = readText(lib.idFile("B")), mBytes = readText(lib.idFile("M"));
    const std::vector<std::string> bases{"M", "A", "Empty", "Garbled", "Locked", "Gone", "B", "B copy", "X 2", "X 3", "Y"};

    auto index = lib.reconcile(bases);

    EXPECT_EQ(index.report.minted, std::vector<std::string>{"A"});
    EXPECT_EQ(index.report.replaced, (std::map<std::string, std::string>{
                                         {"Empty", "the file is empty"}, {"Garbled", "its uuid \"nope\" is not a UUID"}}));
    EXPECT_EQ(index.report.conflicted, (std::map<std::string, std::vector<std::string>>{
                                           {sharedB, {"B", "B copy"}}, {sharedX, {"X 2", "X 3", "Y"}}}));
    std::set<std::string> ids;
    for (const auto& base : bases) {
        if (base == "Locked")
            continue;
        EXPECT_EQ(index.uuid(base), lib.onDisk(base)) << base;
        EXPECT_EQ(index.base(lib.onDisk(base)), base) << base;
        ids.insert(lib.onDisk(base));
    }
    EXPECT_EQ(ids.size(), bases.size() - 1);
    EXPECT_EQ(std::tuple(lib.onDisk("B"), lib.onDisk("X 2"), lib.onDisk("M")), std::tuple(sharedB, sharedX, sharedM));
    EXPECT_EQ(std::pair(readText(lib.idFile("B")), readText(lib.idFile("M"))), std::pair(bBytes, mBytes));
    EXPECT_EQ(index.uuid("Locked"), std::nullopt);
    EXPECT_TRUE(fs::is_directory(lib.idFile("Locked")));
    const auto created = fileCreationDate(lib.folder / "M.mov");
    ASSERT_TRUE(created);
    EXPECT_EQ(index.report.mismatched, (std::map<std::string, PlimIdentityIndex::Mismatch>{
                                           {"M", {*parseIso8601("2020-02-03T04:05:06Z"), *created, "M.mov"}}}));

    EXPECT_EQ(index.report.sentences(), (std::vector<std::string>{
        "Plim gave \"A\" a permanent id so projects can keep pointing at it after a rename.",
        "\"Empty.id.json\" could be read but was not a plim id (the file is empty), so \"Empty\" was given a new one. "
        "Anything that referenced its old id will no longer find it.",
        "\"Garbled.id.json\" could be read but was not a plim id (its uuid \"nope\" is not a UUID), so \"Garbled\" was "
        "given a new one. Anything that referenced its old id will no longer find it.",
        conflict("2", sharedB, "B", "\"B copy\""), conflict("3", sharedX, "X 2", "\"X 3\", \"Y\""),
        "\"Locked\" has no permanent id and one could not be written (Locked.id.json could not be read: it is a "
        "folder, not a file). It was left exactly as it is rather than overwritten. A project cannot reference this plim until "
        "that file can be read or removed.",
        "\"M.mov\" was created on " + readableDate(*created) + ", after the id in \"M.id.json\" was "
        "minted on Feb 3, 2020 at 4:05:06 AM, so that id was not minted for this movie. That is what renaming plim "
        "files in the file manager leaves behind: the id stays with the name while the footage moves. Nothing was "
        "changed, so anything referencing that id still resolves to \"M\" and may be playing the wrong plim. Put the "
        "files back under the names they had, or delete \"M.id.json\" so \"M\" is given an id of its own."}));

    // Once repaired, only what needs the user is reported again.
    auto again = lib.reconcile(bases);
    EXPECT_EQ(again.uuidsByBase, index.uuidsByBase);
    EXPECT_TRUE(again.report.minted.empty() && again.report.replaced.empty() && again.report.conflicted.empty());
    EXPECT_EQ(again.report.unresolved, index.report.unresolved);
}

TEST(PlimIdentityIndex, NamesUpToThreeMintedPlimsAndCountsMore)
{
    Library lib;
    for (const char* base : {"A", "B", "C", "D"})
        lib.plim(base);
    EXPECT_EQ(lib.reconcile({"A", "B", "C"}).report.sentences(), std::vector<std::string>{"Plim gave \"A\", \"B\" and "
        "\"C\" each a permanent id so projects can keep pointing at them after a rename."});
    for (const char* base : {"A", "B", "C"})
        fs::remove(lib.idFile(base));
    EXPECT_EQ(lib.reconcile({"A", "B", "C", "D"}).report.sentences(), std::vector<std::string>{
        "Plim gave 4 plims each a permanent id so projects can keep pointing at them after a rename."});
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
