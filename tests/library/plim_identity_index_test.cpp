#include "library/plim_identity_index.h"
#include "library/plim_record.h"

#include "testkit/testkit.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace plim;
using namespace plim::testkit;

namespace {

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
    void identity(const std::string& base, const std::string& uuid, const std::string& mintedAt)
    {
        writeText(idFile(base), "{\n  \"mintedAt\": \"" + mintedAt + "\",\n  \"uuid\": \"" + uuid + "\"\n}\n");
    }
    std::string uuidOnDisk(const std::string& base) const
    {
        auto reading = PlimIdentity::read(base, folder);
        return reading.kind == PlimIdentity::Reading::Kind::identity ? reading.identity.uuid : std::string();
    }
};

const std::string shared = "11111111-2222-4333-8444-555555555555";
// Minted far in the future, so no movie made by the test looks newer than its id.
const std::string later = "2100-01-01T00:00:00Z";

const std::string conflictTail = ", which happens when plim files are duplicated or restored in the file manager. ";
const std::string conflictEnd = " were given new ids, so each plim can be referenced on its own. Plim leaves the id with the "
                                "plim whose name the others read as copies of, and with the first name in order when no "
                                "name looks like a copy.";

} // namespace

TEST(PlimIdentityIndexOriginal, PicksTheNameEveryOtherContains)
{
    using V = std::vector<std::string>;
    EXPECT_EQ(PlimIdentityIndex::original(V{}), std::nullopt);
    EXPECT_EQ(PlimIdentityIndex::original(V{"Solo"}), "Solo");
    EXPECT_EQ(PlimIdentityIndex::original(V{"B", "B copy"}), "B");
    EXPECT_EQ(PlimIdentityIndex::original(V{"B copy", "B 2", "B"}), "B");
    EXPECT_EQ(PlimIdentityIndex::original(V{"X 2", "X 3", "Y"}), "X 2");
    EXPECT_EQ(PlimIdentityIndex::original(V{"Demo copy", "Other"}), "Demo copy");
}

TEST(PlimIdentityIndexReconcile, TheCopyOfBGetsANewId)
{
    Library lib;
    lib.movie("B");
    lib.movie("B copy");
    lib.identity("B", shared, later);
    lib.identity("B copy", shared, later);
    const std::string keptBytes = readText(lib.idFile("B"));

    auto index = PlimIdentityIndex::reconcile({"B", "B copy"}, lib.folder);

    EXPECT_EQ(readText(lib.idFile("B")), keptBytes);
    const std::string fresh = lib.uuidOnDisk("B copy");
    ASSERT_TRUE(isUuid(fresh));
    EXPECT_NE(fresh, shared);
    EXPECT_EQ(index.uuid("B"), shared);
    EXPECT_EQ(index.uuid("B copy"), fresh);
    EXPECT_EQ(index.base(shared), "B");
    EXPECT_EQ(index.base(fresh), "B copy");
    EXPECT_EQ(index.report.conflicted, (std::map<std::string, std::vector<std::string>>{{shared, {"B", "B copy"}}}));
    EXPECT_TRUE(index.report.minted.empty());
    EXPECT_TRUE(index.report.unresolved.empty());
    EXPECT_TRUE(index.report.mismatched.empty());
    EXPECT_EQ(index.report.sentences(), std::vector<std::string>{"2 plims carried the same id (" + shared + ")" + conflictTail
                  + "\"B\" kept it, and the others (\"B copy\")" + conflictEnd});

    // Once renumbered, the library is settled.
    auto again = PlimIdentityIndex::reconcile({"B", "B copy"}, lib.folder);
    EXPECT_TRUE(again.report.empty());
    EXPECT_EQ(again.uuidsByBase, index.uuidsByBase);
}

TEST(PlimIdentityIndexReconcile, WithNoCopyNameTheFirstKeepsTheId)
{
    Library lib;
    for (const char* base : {"X 2", "X 3", "Y"}) {
        lib.movie(base);
        lib.identity(base, shared, later);
    }
    auto index = PlimIdentityIndex::reconcile({"X 2", "X 3", "Y"}, lib.folder);
    EXPECT_EQ(lib.uuidOnDisk("X 2"), shared);
    EXPECT_NE(lib.uuidOnDisk("X 3"), shared);
    EXPECT_NE(lib.uuidOnDisk("Y"), shared);
    EXPECT_NE(lib.uuidOnDisk("X 3"), lib.uuidOnDisk("Y"));
    EXPECT_EQ(index.basesByUUID.size(), 3u);
    EXPECT_EQ(index.report.sentences(), std::vector<std::string>{"3 plims carried the same id (" + shared + ")" + conflictTail
                  + "\"X 2\" kept it, and the others (\"X 3\", \"Y\")" + conflictEnd});
}

TEST(PlimIdentityIndexReconcile, MintsReplacesAndLeavesUnreadableFilesAlone)
{
    Library lib;
    for (const char* base : {"A", "Empty", "Garbled", "Locked", "Kept"})
        lib.movie(base);
    writeText(lib.idFile("Empty"), "");
    writeText(lib.idFile("Garbled"), "{\"uuid\": \"nope\"}");
    fs::create_directory(lib.idFile("Locked"));
    lib.identity("Kept", shared, later);

    auto index = PlimIdentityIndex::reconcile({"A", "Empty", "Garbled", "Locked", "Kept"}, lib.folder);

    EXPECT_EQ(index.report.minted, std::vector<std::string>{"A"});
    EXPECT_EQ(index.report.replaced, (std::map<std::string, std::string>{
                                         {"Empty", "the file is empty"}, {"Garbled", "its uuid \"nope\" is not a UUID"}}));
    ASSERT_EQ(index.report.unresolved.size(), 1u);
    EXPECT_TRUE(index.report.unresolved.contains("Locked"));
    EXPECT_TRUE(fs::is_directory(lib.idFile("Locked")));
    for (const char* base : {"A", "Empty", "Garbled"}) {
        EXPECT_TRUE(isUuid(lib.uuidOnDisk(base))) << base;
        EXPECT_EQ(index.uuid(base), lib.uuidOnDisk(base)) << base;
    }
    EXPECT_EQ(index.uuid("Kept"), shared);
    EXPECT_EQ(index.uuid("Locked"), std::nullopt);

    auto sentences = index.report.sentences();
    ASSERT_EQ(sentences.size(), 4u);
    EXPECT_EQ(sentences[0], "Plim gave \"A\" a permanent id so projects can keep pointing at it after a rename.");
    EXPECT_EQ(sentences[1], "\"Empty.id.json\" could be read but was not a plim id (the file is empty), so \"Empty\" was "
                            "given a new one. Anything that referenced its old id will no longer find it.");
    EXPECT_EQ(sentences[2], "\"Garbled.id.json\" could be read but was not a plim id (its uuid \"nope\" is not a UUID), so "
                            "\"Garbled\" was given a new one. Anything that referenced its old id will no longer find it.");
    EXPECT_EQ(sentences[3], "\"Locked\" has no permanent id and one could not be written (Locked.id.json could not be "
                            "read: Is a directory). It was left exactly as it is rather than overwritten. A project cannot "
                            "reference this plim until that file can be read or removed.");
}

TEST(PlimIdentityIndexReconcile, AnIdWithoutReadPermissionIsLeftByteForByte)
{
    if (geteuid() == 0)
        GTEST_SKIP() << "root reads files without read permission";
    Library lib;
    lib.movie("B");
    lib.identity("B", shared, later);
    const std::string before = readText(lib.idFile("B"));
    ::chmod(lib.idFile("B").c_str(), 0);
    auto index = PlimIdentityIndex::reconcile({"B"}, lib.folder);
    EXPECT_EQ(index.report.unresolved, (std::map<std::string, std::string>{{"B", "B.id.json could not be read: Permission denied"}}));
    ::chmod(lib.idFile("B").c_str(), 0644);
    EXPECT_EQ(readText(lib.idFile("B")), before);
}

TEST(PlimIdentityIndexReconcile, NamesUpToThreeMintedPlimsAndCountsMore)
{
    Library lib;
    std::vector<std::string> bases = {"A", "B", "C", "D"};
    for (const auto& base : bases)
        lib.movie(base);
    auto three = PlimIdentityIndex::reconcile({"A", "B", "C"}, lib.folder);
    EXPECT_EQ(three.report.sentences(), std::vector<std::string>{
        "Plim gave \"A\", \"B\" and \"C\" each a permanent id so projects can keep pointing at them after a rename."});

    for (const auto& base : bases)
        fs::remove(lib.idFile(base));
    auto four = PlimIdentityIndex::reconcile(bases, lib.folder);
    EXPECT_EQ(four.report.sentences(), std::vector<std::string>{
        "Plim gave 4 plims each a permanent id so projects can keep pointing at them after a rename."});
}

TEST(PlimIdentityIndexReconcile, FootageNewerThanItsIdIsReportedAndLeftAlone)
{
    Library lib;
    fs::path movie = lib.movie("B");
    lib.identity("B", shared, "2020-02-03T04:05:06Z");
    const std::string before = readText(lib.idFile("B"));
    lib.movie("Fine");
    lib.identity("Fine", "AAAAAAAA-2222-4333-8444-555555555555", later);

    auto index = PlimIdentityIndex::reconcile({"B", "Fine"}, lib.folder);

    EXPECT_EQ(readText(lib.idFile("B")), before);
    EXPECT_EQ(index.uuid("B"), shared);
    ASSERT_EQ(index.report.mismatched.size(), 1u);
    const auto& mismatch = index.report.mismatched.at("B");
    EXPECT_EQ(mismatch.mintedAt, *parseIso8601("2020-02-03T04:05:06Z"));
    EXPECT_EQ(mismatch.movieCreatedAt, fileCreationDate(movie));
    EXPECT_EQ(index.report.sentences(), std::vector<std::string>{
        "\"B.mov\" was created on " + readableDate(mismatch.movieCreatedAt)
        + ", after the id in \"B.id.json\" was minted on Feb 3, 2020 at 4:05:06 AM, so that id was not minted for this "
          "movie. That is what renaming plim files in the file manager leaves behind: the id stays with the name while "
          "the footage moves. Nothing was changed, so anything referencing that id still resolves to \"B\" and may be "
          "playing the wrong plim. Put the files back under the names they had, or delete \"B.id.json\" so \"B\" is "
          "given an id of its own."});

    // Without its movie there is no creation date to compare.
    EXPECT_EQ(fileCreationDate(lib.folder / "Gone.mov"), std::nullopt);
    lib.identity("Gone", "CCCCCCCC-2222-4333-8444-555555555555", "2020-02-03T04:05:06Z");
    EXPECT_TRUE(PlimIdentityIndex::reconcile({"Gone"}, lib.folder).report.empty());
}

TEST(PlimIdentityIndexReconcile, SentencesComeInTheirOrder)
{
    Library lib;
    for (const char* base : {"M", "New", "Old", "Old copy", "Bad", "Locked"})
        lib.movie(base);
    lib.identity("M", "BBBBBBBB-2222-4333-8444-555555555555", "2001-01-01T00:00:00Z");
    lib.identity("Old", shared, later);
    lib.identity("Old copy", shared, later);
    writeText(lib.idFile("Bad"), "{");
    fs::create_directory(lib.idFile("Locked"));

    auto sentences = PlimIdentityIndex::reconcile({"M", "New", "Old", "Old copy", "Bad", "Locked"}, lib.folder).report.sentences();
    ASSERT_EQ(sentences.size(), 5u);
    EXPECT_EQ(sentences[0].rfind("Plim gave \"New\" a permanent id", 0), 0u);
    EXPECT_EQ(sentences[1].rfind("\"Bad.id.json\" could be read", 0), 0u);
    EXPECT_EQ(sentences[2].rfind("2 plims carried the same id", 0), 0u);
    EXPECT_EQ(sentences[3].rfind("\"Locked\" has no permanent id", 0), 0u);
    EXPECT_EQ(sentences[4].rfind("\"M.mov\" was created on", 0), 0u);
}
