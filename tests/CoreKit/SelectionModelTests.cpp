#include "CoreKit/SelectionModel.h"
#include "CoreKit/SelectionPath.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace tavrick {
namespace {

using A = SelectionAction::Case;
using E = SearchEngine::Case;


TEST(SelectionActionListTest, UnknownEntriesSurviveARoundTripAtTheEnd) {
    struct Case {
        std::string stored;
        std::vector<std::string> ids;
        std::size_t unknown;
        std::string encoded;
    };
    const std::vector<Case> cases{
        {R"([{"copy":{}},{"futureButton":{"x":1}},{"sum":{}}])", {"copy", "sum"}, 1,
         R"([{"copy":{}},{"sum":{}},{"futureButton":{"x":1}}])"},
        // Two keys, a payload that is not an object, a custom button missing its template: kept.
        {R"([{"copy":{},"search":{}},{"askAI":3},{"custom":{"title":"T"}},{}])", {}, 4,
         R"([{"copy":{},"search":{}},{"askAI":3},{"custom":{"title":"T"}},{}])"},
        // Keys of an unknown entry come back sorted; numbers without a fraction.
        {R"([{"z":{"b":2,"a":[1.5,"x",null,true]}},{"custom":{"urlTemplate":"https://e.test/{text}","title":"a:b"}}])",
         {"custom:a:b:https://e.test/{text}"}, 1,
         R"([{"custom":{"title":"a:b","urlTemplate":"https://e.test/{text}"}},{"z":{"a":[1.5,"x",null,true],"b":2}}])"},
        {"[]", {}, 0, "[]"},
    };
    for (const auto& c : cases) {
        auto list = SelectionActionList::decode(c.stored);
        ASSERT_TRUE(list) << c.stored;
        std::vector<std::string> ids;
        for (const auto& action : list->actions) ids.push_back(action.id());
        EXPECT_EQ(ids, c.ids) << c.stored;
        EXPECT_EQ(list->unknownCount(), c.unknown) << c.stored;
        EXPECT_EQ(list->encoded(), c.encoded) << c.stored;
        // An edit keeps the unknown entries.
        auto edited = list->replacingActions({A::translate});
        EXPECT_EQ(edited.unknown, list->unknown);
    }
    for (const char* notAList : {"{}", "\"copy\"", "[", "", "\xff", "null"}) {
        EXPECT_FALSE(SelectionActionList::decode(notAList)) << notAList;
    }
    SelectionActionList three;
    three.unknown = {JSONValue(1), JSONValue(2), JSONValue(3)};
    EXPECT_EQ(three.unknownDescription(), "3 buttons this build cannot read; they are saved back unchanged");
}

TEST(SelectionActionTest, DecodingFailsWithTheWordsForOtherKeyCounts) {
    for (const char* text : {R"({"copy":{},"search":{}})", "{}"}) {
        try {
            SelectionAction::fromJSON(JSONValue::parse(text));
            ADD_FAILURE() << text;
        } catch (const DecodingError& error) {
            EXPECT_STREQ(error.what(), "Invalid number of keys found, expected one.");
        }
    }
    EXPECT_THROW(SelectionAction::fromJSON(JSONValue::parse(R"({"futureButton":{}})")), DecodingError);
    // Two custom buttons with the same title and template are the same button.
    EXPECT_EQ(SelectionAction::custom("x:y", "https://a/{text}").id(),
              SelectionAction::custom("x:y", "https://a/{text}").id());
}

TEST(SelectionActionTest, AddingBuiltInsOnlyBeforeTheFirstGeneration) {
    struct Case {
        std::vector<SelectionAction> list;
        std::int64_t generation;
        std::vector<SelectionAction> expected;
    };
    const std::vector<Case> cases{
        {{A::copy}, 0, {A::copy, A::revealInFinder}},
        {{A::revealInFinder, A::copy}, 0, {A::revealInFinder, A::copy}},
        {{A::copy}, 1, {A::copy}},
        {{}, 2, {}},
        {{}, 0, {A::revealInFinder}},
        {{}, -1, {A::revealInFinder}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(SelectionAction::addingBuiltIns(c.list, c.generation), c.expected) << c.generation;
    }
}

TEST(SelectionActionTest, EncodingLeavesOnlyLettersAndDigits) {
    EXPECT_EQ(SelectionAction::encode("a&b=c"), "a%26b%3Dc");
    EXPECT_EQ(SelectionAction::encode("x-y_z.~ 1"), "x%2Dy%5Fz%2E%7E%201");
    EXPECT_EQ(SelectionAction::encode("é"), "%C3%A9");
    EXPECT_EQ(SelectionAction::encode("ok\xff"), "");
    EXPECT_EQ(SelectionAction::encode(""), "");
}

TEST(SelectionActionTest, URLsForEachKindOfButton) {
    const SearchEngine ddg(E::duckDuckGo);
    struct Case {
        SelectionAction action;
        std::string text;
        SearchEngine engine;
        std::optional<std::string> url;
    };
    const std::vector<Case> cases{
        {A::search, "a&b=c", ddg, "https://duckduckgo.com/?q=a%26b%3Dc"},
        {A::search, "two words", E::startpage, "https://www.startpage.com/sp/search?query=two%20words"},
        {A::search, "x", E::wikipedia, "https://en.wikipedia.org/w/index.php?search=x"},
        {A::search, "x", SearchEngine::custom("https://s.test/find?k={text}&n={text}"), "https://s.test/find?k=x&n=x"},
        {A::search, "x", SearchEngine::custom("not a url {text}"), std::nullopt},
        {A::lookUp, "word", ddg, "dict://word"},
        {A::openLink, "see https://example.org/a?b=1.", ddg, "https://example.org/a?b=1"},
        {SelectionAction::custom("Maps", "https://maps.test/?q={text}"), "Main St", ddg, "https://maps.test/?q=Main%20St"},
        {SelectionAction::custom("Broken", "::{text}"), "x", ddg, std::nullopt},
        {A::copy, "x", ddg, std::nullopt},
        {A::sum, "1 2", ddg, std::nullopt},
    };
    for (const auto& c : cases) {
        auto url = c.action.url(c.text, c.engine);
        EXPECT_EQ(url ? std::optional(url->absoluteString) : std::nullopt, c.url) << c.action.id() << " " << c.text;
    }
}

TEST(SelectionActionTest, OnlyTheFirstLinkCountsAndOnlyOnTheWeb) {
    const std::vector<std::pair<std::string, std::optional<std::string>>> cases{
        {"https://a.test/x", "https://a.test/x"},
        {"  Read (http://b.test/page) today  ", "http://b.test/page"},
        {"go to www.example.com, now", "http://www.example.com"},
        {"example.org/docs", "http://example.org/docs"},
        {"mailto:me@x.test", std::nullopt},
        {"write me@example.com or https://a.test", std::nullopt},
        {"file:///etc/hosts", std::nullopt},
        {"ftp://files.test/a https://a.test", std::nullopt},
        {"version 1.5 of e.g. this", std::nullopt},
        {"", std::nullopt},
        {"   \n", std::nullopt},
    };
    for (const auto& [text, expected] : cases) {
        auto url = SelectionAction::link(text);
        EXPECT_EQ(url ? std::optional(url->absoluteString) : std::nullopt, expected) << text;
    }
}

TEST(SearchEngineTest, TemplateValidationStepByStep) {
    const std::vector<std::pair<std::string, bool>> cases{
        {"https://s.test/?q={text}", true},
        {"  http://s.test/search/{text}\n", true},
        {"https://s.test/?q=text", false},         // no placeholder
        {"https://{text}.test/?q=1", false},       // the selection would pick the host
        {"https://s{text}x.test/", false},
        {"ftp://s.test/{text}", false},
        {"HTTPS://S.TEST/{text}", true},
        {"https:///{text}", false},                // no host
        {"{text}", false},
        {"", false},
    };
    for (const auto& [text, valid] : cases) EXPECT_EQ(SearchEngine::isValidTemplate(text), valid) << text;
}

TEST(SearchEngineTest, JSONFormsRoundTrip) {
    for (const auto& engine : SearchEngine::allCases()) {
        EXPECT_EQ(SearchEngine::fromJSON(engine.toJSON()), engine) << engine.id();
    }
    auto custom = SearchEngine::custom("https://x.test/{text}");
    EXPECT_EQ(custom.toJSON().dump(), R"({"custom":{"template":"https://x.test/{text}"}})");
    EXPECT_EQ(SearchEngine(E::duckDuckGo).toJSON().dump(), R"({"duckDuckGo":{}})");
    EXPECT_EQ(SearchEngine::fromJSON(custom.toJSON()), custom);
    EXPECT_EQ(SearchEngine::allCases().size(), 8u);
    EXPECT_EQ(SearchEngine::allCases().back(), SearchEngine(E::wikipedia));
}

TEST(SelectionActionTest, WhichButtonsAreOffered) {
    int diskChecks = 0;
    auto kind = [&](const std::string& path) -> std::optional<SelectionPathKind> {
        ++diskChecks;
        if (path == "/Users/x/My Folder") return SelectionPathKind::folder;
        return std::nullopt;
    };
    struct Case {
        SelectionAction action;
        std::string text;
        bool offered;
    };
    const std::vector<Case> cases{
        {A::askAI, "   \n\t", false},
        {A::askAI, " what? ", true},
        {A::copy, "", false},
        {A::openLink, "plain words", false},
        {A::openLink, "at https://a.test", true},
        {A::revealInFinder, "/Users/x/My\\ Folder", true},
        {A::revealInFinder, "/Users/x/gone", false},
        {A::revealInFinder, "hello", false},
    };
    for (const auto& c : cases) EXPECT_EQ(c.action.applies(c.text, "/Users/x", kind), c.offered) << c.action.id() << c.text;
    // The disk is asked only for the two path buttons whose text is a path.
    EXPECT_EQ(diskChecks, 2);
}

TEST(CopyOnSelectDecisionTest, ReasonsInTheirWords) {
    CopyOnSelectDecision off(false, SelectionMode::automatic);
    EXPECT_FALSE(off.shouldCopy);
    EXPECT_EQ(off.reason, "“Copy every selection automatically” is off in Settings › Selection");
    CopyOnSelectDecision onDemand(true, SelectionMode::onDemand);
    EXPECT_FALSE(onDemand.shouldCopy);
    EXPECT_EQ(onDemand.reason,
              "the bar is set to “Only when I ask for it”, and this applies only to “Whenever I select text”");
    CopyOnSelectDecision on(true, SelectionMode::automatic);
    EXPECT_TRUE(on.shouldCopy);
    EXPECT_EQ(on.reason, "");
}

TEST(SelectionPathTest, ResolvesWhatAPersonWouldReadAsAPath) {
    const std::string home = "/Users/x";
    const std::vector<std::pair<std::string, std::optional<std::string>>> cases{
        {"/usr/bin.", "/usr/bin"},
        {"  \"/usr/local/bin\"  ", "/usr/local/bin"},
        {"'/a b'", "/a b"},
        {"`/opt`", "/opt"},
        {"~/Library", "/Users/x/Library"},
        {"~", "/Users/x"},
        {"~other/x", std::nullopt},
        {"/Users/x/My\\ Folder", "/Users/x/My Folder"},
        {"/tmp/a\\(1\\)\\&\\$", "/tmp/a(1)&$"},
        {"/tmp/back\\\\slash", "/tmp/back\\slash"},
        {"/tmp/keep\\n", "/tmp/keep\\n"},
        {"(see /tmp/a)", std::nullopt},   // the opening bracket is part of the text, so not absolute
        {"/tmp/a (1)", "/tmp/a (1)"},
        {"/tmp/x)!?", "/tmp/x"},
        {"file:///tmp/a%20b", "/tmp/a b"},
        {"hello", std::nullopt},
        {"relative/path", std::nullopt},
        {"/a\n/b", std::nullopt},
        {"", std::nullopt},
        {"'", std::nullopt},
        {std::string("/") + std::string(1023, 'a'), std::string("/") + std::string(1023, 'a')},
        {std::string("/") + std::string(1024, 'a'), std::nullopt},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(SelectionPath::resolve(text, home), expected) << text.substr(0, 40);
    }
    // A tilde that grows the path past the limit.
    EXPECT_FALSE(SelectionPath::resolve("~/" + std::string(1000, 'a'), "/" + std::string(100, 'h')));
}

} // namespace
} // namespace tavrick
