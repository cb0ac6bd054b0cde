#include "suite/moment.h"

#include <gtest/gtest.h>

using namespace plim;
using namespace std::chrono;

namespace {

Moment::Instant at(std::string_view text) { return parseMomentTime(text).value(); }

Moment sample()
{
    return {.ts = at("2026-11-14T22:15:44.123Z"), .app = "plim", .kind = "recording", .title = "Screen\nrecording \xC3\xA9",
        .detail = "2 min 4 s of the main display", .entities = {{"file", "B.mov"}, {"display", "Main"}},
        .source = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F"};
}

} // namespace

TEST(MomentTime, ParsesFractionsWholeSecondsAndOffsetsAndFormatsInUtcMilliseconds)
{
    EXPECT_EQ(at("2026-11-14T22:15:44.123Z").time_since_epoch().count(), 1794694544123);
    for (auto [text, formatted] : std::vector<std::pair<std::string_view, std::string_view>>{
             {"2026-11-14T22:15:44.123Z", "2026-11-14T22:15:44.123Z"},
             {"2026-11-14T22:15:44Z", "2026-11-14T22:15:44.000Z"},
             {"2026-11-14T23:15:44.5+01:00", "2026-11-14T22:15:44.500Z"},
             {"2026-11-14T20:45:44.123987-01:30", "2026-11-14T22:15:44.123Z"},
             {"1969-12-31T23:59:59.999Z", "1969-12-31T23:59:59.999Z"}})
        EXPECT_EQ(formatMomentTime(at(text)), formatted) << text;

    for (std::string_view bad : {"", "2026-11-14", "2026-11-14T22:15:44", "2026-02-30T10:00:00Z",
             "2026-11-14T24:00:00Z", "2026-11-14T22:15:44.Z", "2026-11-14 22:15:44Z", "2026-11-14T22:15:44Zjunk",
             "+026-11-14T22:15:44Z", "9999999999-01-01T00:00:00Z", "2026-11-14T22:15:44+24:00"})
        EXPECT_FALSE(parseMomentTime(bad)) << bad;
}

TEST(MomentLine, EncodesKeysInOrderOnOneLineAndDecodesBack)
{
    Moment m = sample();
    m.retracts = Moment::Retraction{"plim", at("2026-11-14T20:00:00Z"), "X"};
    std::string line = m.jsonLine().value();
    EXPECT_EQ(line,
        R"({"schemaVersion":1,"ts":"2026-11-14T22:15:44.123Z","app":"plim","kind":"recording",)"
        R"("title":"Screen\nrecording é","detail":"2 min 4 s of the main display",)"
        R"("entities":[{"type":"file","name":"B.mov"},{"type":"display","name":"Main"}],"sensitive":false,)"
        R"("source":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F",)"
        R"("retracts":{"app":"plim","ts":"2026-11-14T20:00:00.000Z","source":"X"}})");
    EXPECT_EQ(Moment::fromJsonLine(line), m);
    m.detail.reset();
    EXPECT_EQ(m.jsonLine().value().find("\"detail\""), std::string::npos);
    EXPECT_EQ(Moment::fromJsonLine(m.jsonLine().value()), m);

    m.entities.push_back({"file", "bad \xFF\xFE name"});
    auto refused = m.jsonLine();
    EXPECT_EQ(refused ? "encoded" : refused.error().sentence, "The moment could not be encoded as UTF-8 text.");
}

TEST(MomentLine, DecodingIsTolerantOfEntitiesButNotOfTheCoreOrTheAppSlug)
{
    auto m = Moment::fromJsonLine(R"({"schemaVersion":1,"ts":"2026-11-14T22:15:44Z","app":"tovan","kind":"mark",)"
                                  R"("title":"Mark","entities":[{"type":"person"},{"type":"person","name":"Ada"},)"
                                  R"(7,{"type":3,"name":"x"}],"sensitive":true,"retracts":"garbage"})");
    EXPECT_EQ(m, (Moment{.ts = at("2026-11-14T22:15:44.000Z"), .app = "tovan", .kind = "mark", .title = "Mark",
                     .entities = {{"person", "Ada"}}, .sensitive = true}));

    for (std::string_view bad : {
             R"({"ts":"2026-11-14T22:15:44Z","app":"tovan","kind":"mark"})",                         // no title
             R"({"ts":"yesterday","app":"tovan","kind":"mark","title":"t"})",                        // bad instant
             R"({"ts":"2026-11-14T22:15:44Z","app":"tovan","kind":"mark","title":"t","sensitive":"no"})",
             R"({"schemaVersion":"1","ts":"2026-11-14T22:15:44Z","app":"t","kind":"k","title":"t"})",
             R"({"ts":"2026-11-14T22:15:44Z","app":"tovan","kind":"mark","title":"t")", // torn
             R"([1,2,3])", "", "\xFF\xFE{}",
             "{\"ts\":\"2026-11-14T22:15:44Z\",\"app\":\"t\",\"kind\":\"k\",\"title\":\"\xC3\x28\"}"})
        EXPECT_FALSE(Moment::fromJsonLine(bad)) << bad;

    // App slugs: lowercase ASCII letters and digits only.
    EXPECT_TRUE(isValidAppSlug("plim"));
    EXPECT_TRUE(isValidAppSlug("app2"));
    for (std::string_view bad : {"", "Plim", "pl-im", "pl im", "plim.", "pl\xC3\xADm"})
        EXPECT_FALSE(isValidAppSlug(bad)) << bad;
    EXPECT_EQ(invalidAppSlugSentence("Plim"),
        "\"Plim\" is not a valid app slug: use lowercase letters and digits only (for example \"plim\").");
}

TEST(MomentQuery, BoundsAreInclusiveAndEntityNamesMatchWholeIgnoringCase)
{
    // The other filters are exercised through plimctl moments.
    const Moment m = sample();
    EXPECT_TRUE((MomentQuery{.from = m.ts, .to = m.ts}).matches(m));
    EXPECT_FALSE(MomentQuery{.to = m.ts - milliseconds(1)}.matches(m));
    EXPECT_TRUE((MomentQuery{.entityName = "b.MOV", .entityType = "file"}).matches(m));
    EXPECT_FALSE((MomentQuery{.entityName = "b.mov", .entityType = "display"}).matches(m));
    EXPECT_FALSE(MomentQuery{.entityName = "b.mo"}.matches(m));
    EXPECT_TRUE(equalsIgnoringCase("\xC3\x89" "cran", "\xC3\xA9" "CRAN")); // Écran / éCRAN
    EXPECT_TRUE(equalsIgnoringCase("\xD0\x9C\xD0\xB8\xD1\x80", "\xD0\xBC\xD0\x98\xD0\xA0")); // Мир / мИР
    EXPECT_FALSE(equalsIgnoringCase("abc", "abcd"));
    EXPECT_FALSE(equalsIgnoringCase("a\xFF", "A\xFE"));
    EXPECT_TRUE(equalsIgnoringCase("a\xFF", "A\xFF"));
}

TEST(RetractionIndex, TheLatestBookkeepingMomentDecidesWhateverTheReadingOrder)
{
    const Moment target = sample();
    auto mark = [&](std::string kind, std::string_view ts) {
        return Moment{.ts = at(ts), .app = "plim", .kind = std::move(kind), .title = "t",
            .retracts = Moment::Retraction{"plim", target.ts, std::nullopt}};
    };
    const Moment retract = mark("retracted", "2026-11-15T10:00:00Z"), restore = mark("restored", "2026-11-15T11:00:00Z");
    Moment::Retraction::Index index, reversed, ignored;
    index.add(retract);
    EXPECT_TRUE(index.claims(target));
    index.add(restore);
    EXPECT_FALSE(index.claims(target));
    reversed.add(restore);
    reversed.add(retract);
    EXPECT_FALSE(reversed.claims(target));

    Moment plain = sample();
    plain.retracts = retract.retracts; // only bookkeeping kinds count
    ignored.add(plain);
    EXPECT_TRUE(ignored.empty());
}
