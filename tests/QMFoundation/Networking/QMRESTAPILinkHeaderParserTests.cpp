#include "QMFoundation/Networking/QMRESTAPILinkHeaderParser.h"

#include "tests/Support/AssertionCapture.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>

using platform::Dictionary;
using platform::URL;
using platform::Value;

namespace {

struct Numbers {
    std::uint64_t next;
    std::uint64_t prev;
    std::uint64_t total;
    std::uint64_t perPage;
    friend bool operator==(const Numbers&, const Numbers&) = default;
};

std::ostream& operator<<(std::ostream& stream, const Numbers& numbers)
{
    return stream << "next " << numbers.next << ", prev " << numbers.prev << ", total " << numbers.total << ", per page "
                  << numbers.perPage;
}

Numbers parse(const Dictionary& headerFields)
{
    const auto parser = QMRESTAPILinkHeaderParser::parserWithHeaderFields(headerFields, "page", "per_page");
    return {parser->nextPageNumber(), parser->prevPageNumber(), parser->numberOfTotalPages(), parser->numberOfItemsPerPage()};
}

Numbers parseLink(const std::string& link)
{
    return parse(Dictionary{{"Link", link}});
}

TEST(QMRESTAPILinkHeaderParser, ReadsThePagingNumbers)
{
    constexpr auto huge = std::numeric_limits<std::uint64_t>::max();
    struct Case {
        const char* link;
        Numbers numbers;
    };
    const Case cases[] = {
        {R"(</items?page=3&per_page=50>; rel="next", </items?page=10&per_page=50>; rel="last")", {3, 0, 10, 50}},
        // Without the space after the comma it is one entry, ending as "last"
        // does, whose URL is the first one.
        {R"(</items?page=3&per_page=50>; rel="next",</items?page=10&per_page=50>; rel="last")", {0, 0, 3, 50}},
        // The last page has no "last" link: the total is the previous page.
        {R"(</items?page=1&per_page=5>; rel="first", </items?page=6&per_page=5>; rel="prev")", {0, 6, 6, 5}},
        {R"(<https://api.example.com/items?page=2>; rel="Next", </items?page=4>; rel="prev")", {0, 4, 4, 0}},
        {R"(</items?page=abc>; rel="next", </items?page=7x>; rel="prev")", {0, 7, 7, 0}},
        {R"(</items?page=-1>; rel="next", </items?page=%2B5>; rel="prev")", {huge, 0, 0, 0}},
        {R"(</items?page=+5>; rel="next")", {5, 0, 0, 0}},
        // The first relation that appeared gives the page size.
        {R"(</a?per_page=10>; rel="prev", </a?per_page=20&page=2>; rel="next")", {2, 0, 0, 10}},
        // A later entry replaces an earlier one; a URL that does not parse removes it.
        {R"(</a?page=2>; rel="next", </a?page=9>; rel="next")", {9, 0, 0, 0}},
        {R"(</a?page=2>; rel="next", <http://bad host/?page=9>; rel="next")", {0, 0, 0, 0}},
        // Other endings are ignored: extra parameters, single quotes, no space.
        {R"(</a?page=2>; rel="next"; title="n", </a?page=3>; rel='prev', </a?page=4>;rel="last")", {0, 0, 0, 0}},
        // The brackets are dropped by position, not checked.
        {R"(x/a?page=2y; rel="next")", {2, 0, 0, 0}},
        {R"( </a?page=2>; rel="next")", {0, 0, 0, 0}},
        // Only the text between the first and second "=" is the value; a later
        // duplicate name wins; values are not percent-decoded.
        {R"(</a?page=3=4&page=5&per_page=1%30>; rel="next")", {5, 0, 0, 1}},
        {R"(</a?x=1>; rel="other")", {0, 0, 0, 0}},
        // A character outside the basic plane at either end leaves half of it.
        {"\xF0\x9D\x9F\x8F/a?page=2>; rel=\"next\"", {0, 0, 0, 0}},
    };
    for (const auto& testCase : cases) {
        EXPECT_EQ(parseLink(testCase.link), testCase.numbers) << testCase.link;
    }
}

TEST(QMRESTAPILinkHeaderParser, LooksUpTheHeaderUnderLinkExactly)
{
    const std::string link = R"(</items?page=3&per_page=50>; rel="next")";
    EXPECT_EQ(parse(Dictionary{{"link", link}}), (Numbers{0, 0, 0, 0}));
    EXPECT_EQ(parse(Dictionary{}), (Numbers{0, 0, 0, 0}));
    EXPECT_EQ(parse(Dictionary{{"Link", 42}}), (Numbers{0, 0, 0, 0}));
    EXPECT_EQ(parse(Dictionary{{"Link", link}}), (Numbers{3, 0, 0, 50}));
}

TEST(QMRESTAPILinkHeaderParser, RaisesRangeErrorsForMalformedEntries)
{
    const char* malformed[] = {
        "",
        R"(</a?page=2>; rel="next", )",
        R"(<; rel="next")",
        R"(x; rel="next")",
        "\xC3\xA9",  // one character, two bytes
        R"(</a?page>; rel="next")",
        R"(</a?page=2&>; rel="next")",
        R"(</a?>; rel="next")",
    };
    for (const char* link : malformed) {
        try {
            parseLink(link);
            ADD_FAILURE() << "nothing was raised for " << link;
        } catch (const platform::Exception& exception) {
            EXPECT_EQ(exception.name(), platform::NSRangeException) << link;
            // The message names lengths and positions, never the link itself.
            EXPECT_EQ(exception.reason().find("/a?"), std::string::npos) << exception.reason();
        }
    }
}

TEST(QMRESTAPILinkHeaderParser, SplitsTheHeaderIntoRelations)
{
    const auto parser = QMRESTAPILinkHeaderParser::parserWithHeaderFields(Dictionary{}, "page", "per_page");
    const auto relations = parser->parseLinkURLsByRelParamFromLinkHeader(
        R"(<https://h/x?page=2>; rel="next", <https://h/x?page=1>; rel="first", <https://h/x?page=1>; rel="self")");
    EXPECT_EQ(relations.keys(), (std::vector<std::string>{"next", "first"}));
    EXPECT_EQ(*relations.get("next").url(), *URL::fromString("https://h/x?page=2"));
    EXPECT_EQ(parser->parseQueryFromLinkURL(*URL::fromString("https://h/x?a=%20&b=")),
              (Dictionary{{"a", "%20"}, {"b", ""}}));
    EXPECT_TRUE(parser->parseQueryFromLinkURL(*URL::fromString("https://h/x")).empty());
    EXPECT_EQ(parser->valueForKey("pageParameterName"), Value("page"));
    EXPECT_EQ(parser->valueForKey("numberOfTotalPages"), Value(0));
}

TEST(QMRESTAPILinkHeaderParser, AssertsEachArgumentAtItsLine)
{
    const auto parser = QMRESTAPILinkHeaderParser::parserWithHeaderFields(Dictionary{}, "page", "per_page");
    struct Case {
        std::function<void()> call;
        const char* condition;
        int line;
    };
    const Case cases[] = {
        {[] { QMRESTAPILinkHeaderParser::parserWithHeaderFields(std::nullopt, std::nullopt, std::nullopt); }, "headerFields", 32},
        {[] { QMRESTAPILinkHeaderParser::parserWithHeaderFields(Dictionary{}, std::nullopt, "per_page"); }, "pageParameterName", 33},
        {[] { QMRESTAPILinkHeaderParser::parserWithHeaderFields(Dictionary{}, "page", std::nullopt); }, "perPageParameterName", 34},
        {[&] { parser->parseNextPageNumberFromHeaderFields(std::nullopt); }, "headerFields", 57},
        {[&] { parser->parsePrevPageNumberFromHeaderFields(std::nullopt); }, "headerFields", 86},
        {[&] { parser->parseNumberOfTotalPagesFromHeaderFields(std::nullopt); }, "headerFields", 115},
        {[&] { parser->parseNumberOfItemsPerPageFromHeaderFields(std::nullopt); }, "headerFields", 144},
        {[&] { parser->parseLinkURLsByRelParamFromLinkHeader(std::nullopt); }, "linkHeader", 167},
        {[&] { parser->parseLinkURLFromLinkHeaderComponent(std::nullopt); }, "linkHeaderComponent", 190},
        {[&] { parser->parseQueryFromLinkURL(std::nullopt); }, "linkURL", 200},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(std::string(testCase.condition) + " at line " + std::to_string(testCase.line));
        const auto failure = testsupport::captureAssertion(testCase.call);
        EXPECT_EQ(failure.description, std::string("Invalid parameter not satisfying: ") + testCase.condition);
        EXPECT_EQ(failure.file, "QMFoundation/QMRESTAPILinkHeaderParser");
        EXPECT_EQ(failure.line, testCase.line);
    }
}

}  // namespace
