#include "suite/moment.h"

#include <gtest/gtest.h>

using namespace plim;
using namespace std::chrono;

namespace {

Moment::Instant at(std::string_view text)
{
    auto instant = parseMomentTime(text);
    EXPECT_TRUE(instant) << text;
    return instant.value_or(Moment::Instant{});
}

Moment sample()
{
    Moment m;
    m.ts = at("2026-11-14T22:15:44.123Z");
    m.app = "plim";
    m.kind = "recording";
    m.title = "Screen recording";
    m.detail = "2 min 4 s of the main display";
    m.entities = {{"file", "B.mov"}, {"display", "Main"}};
    m.source = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
    return m;
}

} // namespace

TEST(MomentTime, FractionalAndWholeSecondFormsAndOffsets)
{
    auto fractional = parseMomentTime("2026-11-14T22:15:44.123Z");
    ASSERT_TRUE(fractional);
    EXPECT_EQ(fractional->time_since_epoch().count(), 1794694544123);
    EXPECT_EQ(formatMomentTime(*fractional), "2026-11-14T22:15:44.123Z");

    auto whole = parseMomentTime("2026-11-14T22:15:44Z");
    ASSERT_TRUE(whole);
    EXPECT_EQ(*fractional - *whole, milliseconds(123));
    EXPECT_EQ(formatMomentTime(*whole), "2026-11-14T22:15:44.000Z");

    EXPECT_EQ(parseMomentTime("2026-11-14T23:15:44.5+01:00"), parseMomentTime("2026-11-14T22:15:44.500Z"));
    EXPECT_EQ(parseMomentTime("2026-11-14T22:15:44.123987Z"), fractional);
    EXPECT_EQ(formatMomentTime(at("1969-12-31T23:59:59.999Z")), "1969-12-31T23:59:59.999Z");

    for (std::string_view bad : {"", "2026-11-14", "2026-11-14T22:15:44", "2026-02-30T10:00:00Z",
             "2026-11-14T24:00:00Z", "2026-11-14T22:15:44.Z", "2026-11-14 22:15:44Z", "2026-11-14T22:15:44Zjunk",
             "+026-11-14T22:15:44Z", "9999999999-01-01T00:00:00Z"})
        EXPECT_FALSE(parseMomentTime(bad)) << bad;
}

TEST(MomentLine, EncodesKeysInOrderOnOneLineAndDecodesBack)
{
    Moment m = sample();
    m.retracts = Moment::Retraction{"plim", at("2026-11-14T20:00:00Z"), "X"};
    auto line = m.jsonLine();
    ASSERT_TRUE(line) << line.error().sentence;
    EXPECT_EQ(*line,
        R"({"schemaVersion":1,"ts":"2026-11-14T22:15:44.123Z","app":"plim","kind":"recording",)"
        R"("title":"Screen recording","detail":"2 min 4 s of the main display",)"
        R"("entities":[{"type":"file","name":"B.mov"},{"type":"display","name":"Main"}],"sensitive":false,)"
        R"("source":"E621E1F8-C36C-495A-93FC-0C247A3E6E5F",)"
        R"("retracts":{"app":"plim","ts":"2026-11-14T20:00:00.000Z","source":"X"}})");
    EXPECT_EQ(Moment::fromJsonLine(*line), m);

    Moment multiline = sample();
    multiline.detail.reset();
    multiline.title = "first\nsecond \xC3\xA9";
    auto encoded = multiline.jsonLine();
    ASSERT_TRUE(encoded);
    EXPECT_EQ(encoded->find('\n'), std::string::npos);
    EXPECT_EQ(encoded->find("\"detail\""), std::string::npos);
    EXPECT_EQ(Moment::fromJsonLine(*encoded), multiline);
}

TEST(MomentLine, TextThatIsNotUtf8IsRefusedWithASentence)
{
    Moment m = sample();
    m.entities.push_back({"file", "bad \xFF\xFE name"});
    auto line = m.jsonLine();
    ASSERT_FALSE(line);
    EXPECT_EQ(line.error().sentence, "The moment could not be encoded as UTF-8 text.");
}

TEST(MomentLine, DecodingIsTolerantOfEntitiesButNotOfTheCore)
{
    auto m = Moment::fromJsonLine(R"({"schemaVersion":1,"ts":"2026-11-14T22:15:44Z","app":"tovan","kind":"mark",)"
                                  R"("title":"Mark","entities":[{"type":"person"},{"type":"person","name":"Ada"},)"
                                  R"(7,{"type":3,"name":"x"}],"sensitive":true,"retracts":"garbage"})");
    ASSERT_TRUE(m);
    EXPECT_EQ(m->entities, (std::vector<Moment::Entity>{{"person", "Ada"}}));
    EXPECT_TRUE(m->sensitive);
    EXPECT_FALSE(m->retracts);
    EXPECT_EQ(m->ts, at("2026-11-14T22:15:44.000Z"));

    for (std::string_view bad : {
             R"({"ts":"2026-11-14T22:15:44Z","app":"tovan","kind":"mark"})",                         // no title
             R"({"ts":"yesterday","app":"tovan","kind":"mark","title":"t"})",                        // bad instant
             R"({"ts":"2026-11-14T22:15:44Z","app":"tovan","kind":"mark","title":"t","sensitive":"no"})",
             R"({"schemaVersion":"1","ts":"2026-11-14T22:15:44Z","app":"t","kind":"k","title":"t"})",
             R"({"ts":"2026-11-14T22:15:44Z","app":"tovan","kind":"mark","title":"t")", // torn
             R"([1,2,3])", "", "\xFF\xFE{}",
             "{\"ts\":\"2026-11-14T22:15:44Z\",\"app\":\"t\",\"kind\":\"k\",\"title\":\"\xC3\x28\"}"})
        EXPECT_FALSE(Moment::fromJsonLine(bad)) << bad;
}

TEST(MomentQuery, AppliesEachFilterInTurn)
{
    Moment m = sample();
    MomentQuery all;
    EXPECT_TRUE(all.matches(m));

    Moment secret = m;
    secret.sensitive = true;
    EXPECT_FALSE(all.matches(secret));
    EXPECT_TRUE(MomentQuery{.includeSensitive = true}.matches(secret));

    Moment retracted = m;
    retracted.kind = "retracted";
    EXPECT_FALSE(all.matches(retracted));
    EXPECT_FALSE(MomentQuery{.kinds = std::set<std::string>{"recording"}}.matches(retracted));
    EXPECT_TRUE(MomentQuery{.kinds = std::set<std::string>{"retracted"}}.matches(retracted));

    EXPECT_FALSE(MomentQuery{.apps = std::set<std::string>{"tovan"}}.matches(m));
    EXPECT_TRUE((MomentQuery{.apps = std::set<std::string>{"tovan", "plim"}}).matches(m));
    EXPECT_FALSE(MomentQuery{.kinds = std::set<std::string>{"mark"}}.matches(m));

    EXPECT_TRUE((MomentQuery{.from = m.ts, .to = m.ts}).matches(m)); // bounds are inclusive
    EXPECT_FALSE(MomentQuery{.from = m.ts + milliseconds(1)}.matches(m));
    EXPECT_FALSE(MomentQuery{.to = m.ts - milliseconds(1)}.matches(m));

    EXPECT_TRUE(MomentQuery{.entityName = "b.MOV"}.matches(m));
    EXPECT_TRUE((MomentQuery{.entityName = "b.mov", .entityType = "file"}).matches(m));
    EXPECT_FALSE((MomentQuery{.entityName = "b.mov", .entityType = "display"}).matches(m));
    EXPECT_FALSE(MomentQuery{.entityName = "b.mo"}.matches(m));
}

TEST(MomentQuery, EntityNamesCompareIgnoringCaseBeyondAscii)
{
    EXPECT_TRUE(equalsIgnoringCase("\xC3\x89" "cran", "\xC3\xA9" "CRAN")); // Écran / éCRAN
    EXPECT_TRUE(equalsIgnoringCase("\xD0\x9C\xD0\xB8\xD1\x80", "\xD0\xBC\xD0\x98\xD0\xA0")); // Мир / мИР
    EXPECT_FALSE(equalsIgnoringCase("abc", "abcd"));
    EXPECT_FALSE(equalsIgnoringCase("a\xFF", "A\xFE"));
    EXPECT_TRUE(equalsIgnoringCase("a\xFF", "A\xFF"));
}

TEST(RetractionIndex, TheLatestBookkeepingMomentDecidesWhateverTheReadingOrder)
{
    Moment target = sample();
    auto bookkeeping = [&](std::string kind, std::string_view ts, std::optional<std::string> source) {
        Moment b;
        b.app = "plim";
        b.kind = std::move(kind);
        b.ts = at(ts);
        b.title = "t";
        b.retracts = Moment::Retraction{"plim", source ? Moment::Instant{} : target.ts, source};
        return b;
    };
    Moment retract = bookkeeping("retracted", "2026-11-15T10:00:00Z", std::nullopt);
    Moment restore = bookkeeping("restored", "2026-11-15T11:00:00Z", std::nullopt);

    Moment::Retraction::Index index;
    index.add(retract);
    EXPECT_TRUE(index.claims(target));
    index.add(restore);
    EXPECT_FALSE(index.claims(target));

    Moment::Retraction::Index reversed;
    reversed.add(restore);
    reversed.add(retract);
    EXPECT_FALSE(reversed.claims(target));

    Moment::Retraction::Index bySource;
    bySource.add(bookkeeping("retracted", "2026-11-15T10:00:00Z", target.source));
    EXPECT_TRUE(bySource.claims(target));
    Moment other = target;
    other.app = "tovan";
    EXPECT_FALSE(bySource.claims(other));
    other = target;
    other.source.reset();
    EXPECT_FALSE(bySource.claims(other));

    Moment::Retraction::Index ignored;
    Moment plain = sample();
    plain.retracts = retract.retracts; // only bookkeeping kinds count
    ignored.add(plain);
    EXPECT_TRUE(ignored.empty());
}

TEST(AppSlug, LowercaseLettersAndDigitsOnly)
{
    EXPECT_TRUE(isValidAppSlug("plim"));
    EXPECT_TRUE(isValidAppSlug("app2"));
    for (std::string_view bad : {"", "Plim", "pl-im", "pl im", "plim.", "pl\xC3\xADm"})
        EXPECT_FALSE(isValidAppSlug(bad)) << bad;
    EXPECT_EQ(invalidAppSlugSentence("Plim"),
        "\"Plim\" is not a valid app slug: use lowercase letters and digits only (for example \"plim\").");
}
