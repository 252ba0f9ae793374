#include "QMFoundation/Networking/QMRESTAPILinkHeaderParser.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/StringValue.h"
#include "Platform/Foundation/Unicode.h"

#include <array>
#include <string_view>
#include <vector>

using platform::Dictionary;
using platform::URL;
using platform::Value;

namespace {

constexpr const char* kAssertionSourceFile = "QMFoundation/QMRESTAPILinkHeaderParser";

std::vector<std::string_view> componentsSeparatedBy(std::string_view text, std::string_view separator)
{
    std::vector<std::string_view> components;
    std::size_t start = 0;
    for (auto found = text.find(separator); found != std::string_view::npos; found = text.find(separator, start)) {
        components.push_back(text.substr(start, found - start));
        start = found + separator.size();
    }
    components.push_back(text.substr(start));
    return components;
}

// The text without its first and last character, counted in UTF-16 units.
// Fewer than two units is a range error. Cutting a character outside the
// basic plane would leave half of it, which no URL accepts: nothing then.
std::optional<std::string_view> withoutFirstAndLastCharacter(std::string_view text)
{
    const auto units = platform::utf16Length(text);
    if (units < 2) {
        platform::Exception::raise(platform::NSRangeException,
                                   "Range {1, " + std::to_string(static_cast<long long>(units) - 2)
                                       + "} out of bounds; string length " + std::to_string(units));
    }
    std::size_t lastStart = 0;
    platform::UTF8Character last{};
    for (std::size_t index = 0; index < text.size(); index += last.length) {
        lastStart = index;
        last = platform::decodeUTF8Character(text, index);
    }
    const auto first = platform::decodeUTF8Character(text, 0);
    const auto outsideBasicPlane = [](const platform::UTF8Character& character) {
        return character.valid && character.codePoint >= 0x10000;
    };
    if (outsideBasicPlane(first) || outsideBasicPlane(last)) {
        return std::nullopt;
    }
    return text.substr(first.length, lastStart - first.length);
}

constexpr std::array<std::pair<std::string_view, std::string_view>, 4> kRelationSuffixes{{
    {"first", "; rel=\"first\""},
    {"last", "; rel=\"last\""},
    {"prev", "; rel=\"prev\""},
    {"next", "; rel=\"next\""},
}};

}  // namespace

QMRESTAPILinkHeaderParser::QMRESTAPILinkHeaderParser(Dictionary headerFields, std::string pageParameterName,
                                                     std::string perPageParameterName)
    : headerFields_(std::move(headerFields)),
      pageParameterName_(std::move(pageParameterName)),
      perPageParameterName_(std::move(perPageParameterName))
{
}

QMRESTAPILinkHeaderParserRef QMRESTAPILinkHeaderParser::parserWithHeaderFields(
    std::optional<Dictionary> headerFields, std::optional<std::string> pageParameterName,
    std::optional<std::string> perPageParameterName)
{
    PLATFORM_PARAMETER_ASSERT_AT_LINE(headerFields.has_value(), "headerFields", 32);
    PLATFORM_PARAMETER_ASSERT_AT_LINE(pageParameterName.has_value(), "pageParameterName", 33);
    PLATFORM_PARAMETER_ASSERT_AT_LINE(perPageParameterName.has_value(), "perPageParameterName", 34);
    auto parser = platform::makeObject<QMRESTAPILinkHeaderParser>(std::move(*headerFields), std::move(*pageParameterName),
                                                                  std::move(*perPageParameterName));
    parser->nextPageNumber_ = parser->parseNextPageNumberFromHeaderFields(parser->headerFields_);
    parser->prevPageNumber_ = parser->parsePrevPageNumberFromHeaderFields(parser->headerFields_);
    parser->numberOfTotalPages_ = parser->parseNumberOfTotalPagesFromHeaderFields(parser->headerFields_);
    parser->numberOfItemsPerPage_ = parser->parseNumberOfItemsPerPageFromHeaderFields(parser->headerFields_);
    return parser;
}

Dictionary QMRESTAPILinkHeaderParser::linkRelations(const Dictionary& headerFields) const
{
    const auto* link = headerFields.find("Link");
    if (link == nullptr || link->string() == nullptr) {
        return {};
    }
    return parseLinkURLsByRelParamFromLinkHeader(*link->string());
}

std::uint64_t QMRESTAPILinkHeaderParser::pageNumber(const Dictionary& relations, std::string_view relation,
                                                    const std::string& parameterName) const
{
    const auto* link = relations.find(relation);
    if (link == nullptr || link->url() == nullptr) {
        return 0;
    }
    const auto query = parseQueryFromLinkURL(*link->url());
    const auto* value = query.find(parameterName);
    if (value == nullptr || value->string() == nullptr) {
        return 0;
    }
    return static_cast<std::uint64_t>(platform::integerValue(*value->string()));
}

std::uint64_t QMRESTAPILinkHeaderParser::parseNextPageNumberFromHeaderFields(const std::optional<Dictionary>& headerFields) const
{
    PLATFORM_PARAMETER_ASSERT_AT_LINE(headerFields.has_value(), "headerFields", 57);
    return pageNumber(linkRelations(*headerFields), "next", pageParameterName_);
}

std::uint64_t QMRESTAPILinkHeaderParser::parsePrevPageNumberFromHeaderFields(const std::optional<Dictionary>& headerFields) const
{
    PLATFORM_PARAMETER_ASSERT_AT_LINE(headerFields.has_value(), "headerFields", 86);
    return pageNumber(linkRelations(*headerFields), "prev", pageParameterName_);
}

std::uint64_t QMRESTAPILinkHeaderParser::parseNumberOfTotalPagesFromHeaderFields(
    const std::optional<Dictionary>& headerFields) const
{
    PLATFORM_PARAMETER_ASSERT_AT_LINE(headerFields.has_value(), "headerFields", 115);
    const auto relations = linkRelations(*headerFields);
    return pageNumber(relations, relations.contains("last") ? "last" : "prev", pageParameterName_);
}

std::uint64_t QMRESTAPILinkHeaderParser::parseNumberOfItemsPerPageFromHeaderFields(
    const std::optional<Dictionary>& headerFields) const
{
    PLATFORM_PARAMETER_ASSERT_AT_LINE(headerFields.has_value(), "headerFields", 144);
    const auto relations = linkRelations(*headerFields);
    if (relations.empty()) {
        return 0;
    }
    return pageNumber(relations, relations.begin()->first, perPageParameterName_);
}

Dictionary QMRESTAPILinkHeaderParser::parseLinkURLsByRelParamFromLinkHeader(const std::optional<std::string>& linkHeader) const
{
    PLATFORM_PARAMETER_ASSERT_AT_LINE(linkHeader.has_value(), "linkHeader", 167);
    Dictionary relations;
    for (const auto component : componentsSeparatedBy(*linkHeader, ", ")) {
        // Every entry's URL is taken, also when its relation is then ignored.
        const auto url = parseLinkURLFromLinkHeaderComponent(std::string(component));
        for (const auto& [relation, suffix] : kRelationSuffixes) {
            if (component.ends_with(suffix)) {
                if (url) {
                    relations.set(relation, *url);
                } else {
                    relations.remove(relation);
                }
                break;
            }
        }
    }
    return relations;
}

std::optional<URL> QMRESTAPILinkHeaderParser::parseLinkURLFromLinkHeaderComponent(
    const std::optional<std::string>& linkHeaderComponent) const
{
    PLATFORM_PARAMETER_ASSERT_AT_LINE(linkHeaderComponent.has_value(), "linkHeaderComponent", 190);
    const auto urlPart = std::string_view(*linkHeaderComponent).substr(0, linkHeaderComponent->find(';'));
    const auto urlText = withoutFirstAndLastCharacter(urlPart);
    return urlText ? URL::fromString(*urlText) : std::nullopt;
}

Dictionary QMRESTAPILinkHeaderParser::parseQueryFromLinkURL(const std::optional<URL>& linkURL) const
{
    PLATFORM_PARAMETER_ASSERT_AT_LINE(linkURL.has_value(), "linkURL", 200);
    Dictionary query;
    if (!linkURL->query()) {
        return query;
    }
    for (const auto piece : componentsSeparatedBy(*linkURL->query(), "&")) {
        const auto parts = componentsSeparatedBy(piece, "=");
        if (parts.size() < 2) {
            platform::Exception::raise(platform::NSRangeException,
                                       "index 1 beyond bounds [0 .. 0] reading the value of a query piece without \"=\"");
        }
        query.set(parts[0], std::string(parts[1]));
    }
    return query;
}

const platform::PropertyTable& QMRESTAPILinkHeaderParser::propertyTable() const
{
    using Self = QMRESTAPILinkHeaderParser;
    static const auto table = platform::PropertyTable::extending<Self>(Object::propertyTable(), {
        {"headerFields", [](const Self& self) { return Value(self.headerFields()); }},
        {"pageParameterName", [](const Self& self) { return Value(self.pageParameterName()); }},
        {"perPageParameterName", [](const Self& self) { return Value(self.perPageParameterName()); }},
        {"nextPageNumber", [](const Self& self) { return Value(self.nextPageNumber()); }},
        {"prevPageNumber", [](const Self& self) { return Value(self.prevPageNumber()); }},
        {"numberOfTotalPages", [](const Self& self) { return Value(self.numberOfTotalPages()); }},
        {"numberOfItemsPerPage", [](const Self& self) { return Value(self.numberOfItemsPerPage()); }},
    });
    return table;
}
