// QMRESTAPILinkHeaderParser: the paging numbers in a REST response's "Link"
// header, read from the query parameters of its "next", "prev" and "last"
// links.
//
//   auto parser = QMRESTAPILinkHeaderParser::parserWithHeaderFields(response.headerFields(), "page", "per_page");
//   parser->nextPageNumber();  // 0 when there is no next page
//
// This is a plain splitter over the layout that paging services send, not a
// Link grammar: entries are separated by ", " exactly (a comma and one
// space), an entry's URL is its text before the first ";" without its first
// and last character, and its relation is one of the exact, case-sensitive
// endings `; rel="first"`, `; rel="last"`, `; rel="prev"` or `; rel="next"`;
// other entries are ignored. The header is looked up under "Link" exactly.
// Query values are read raw, without percent-decoding, as a string's integer
// value, then taken as unsigned: "-1" becomes the largest value.
//
// Quirks kept on purpose:
// - Without a "last" link (on the last page) the total is the page number
//   of the "prev" link.
// - The page size comes from whichever link comes first in the relation
//   dictionary, which keeps the order in which relations first appeared.
// - An entry whose URL part is shorter than two characters, and a query
//   piece without "=", raise "NSRangeException" out of the factory; nothing
//   is read out of bounds, and nothing is caught.
//
// Everything is computed once, in the factory; the object is immutable
// afterwards and may be read from any thread.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/URL.h"
#include "Platform/Foundation/Value.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

class QMRESTAPILinkHeaderParser;
using QMRESTAPILinkHeaderParserRef = std::shared_ptr<QMRESTAPILinkHeaderParser>;

class QMRESTAPILinkHeaderParser : public platform::Object {
public:
    // Every argument is required ("headerFields", "pageParameterName",
    // "perPageParameterName").
    static QMRESTAPILinkHeaderParserRef parserWithHeaderFields(std::optional<platform::Dictionary> headerFields,
                                                               std::optional<std::string> pageParameterName,
                                                               std::optional<std::string> perPageParameterName);

    const platform::Dictionary& headerFields() const { return headerFields_; }
    const std::string& pageParameterName() const { return pageParameterName_; }
    const std::string& perPageParameterName() const { return perPageParameterName_; }
    std::uint64_t nextPageNumber() const { return nextPageNumber_; }
    std::uint64_t prevPageNumber() const { return prevPageNumber_; }
    std::uint64_t numberOfTotalPages() const { return numberOfTotalPages_; }
    std::uint64_t numberOfItemsPerPage() const { return numberOfItemsPerPage_; }

    std::uint64_t parseNextPageNumberFromHeaderFields(const std::optional<platform::Dictionary>& headerFields) const;
    std::uint64_t parsePrevPageNumberFromHeaderFields(const std::optional<platform::Dictionary>& headerFields) const;
    std::uint64_t parseNumberOfTotalPagesFromHeaderFields(const std::optional<platform::Dictionary>& headerFields) const;
    std::uint64_t parseNumberOfItemsPerPageFromHeaderFields(const std::optional<platform::Dictionary>& headerFields) const;

    // Relation name ("first", "last", "prev", "next") -> URL value.
    platform::Dictionary parseLinkURLsByRelParamFromLinkHeader(const std::optional<std::string>& linkHeader) const;
    std::optional<platform::URL> parseLinkURLFromLinkHeaderComponent(const std::optional<std::string>& linkHeaderComponent) const;
    // Query parameter name -> raw value (string).
    platform::Dictionary parseQueryFromLinkURL(const std::optional<platform::URL>& linkURL) const;

    std::string className() const override { return "QMRESTAPILinkHeaderParser"; }
    const platform::PropertyTable& propertyTable() const override;

private:
    template <class> friend struct platform::ObjectAllocator;
    QMRESTAPILinkHeaderParser(platform::Dictionary headerFields, std::string pageParameterName,
                              std::string perPageParameterName);

    std::uint64_t pageNumber(const platform::Dictionary& relations, std::string_view relation,
                             const std::string& parameterName) const;
    platform::Dictionary linkRelations(const platform::Dictionary& headerFields) const;

    platform::Dictionary headerFields_;
    std::string pageParameterName_;
    std::string perPageParameterName_;
    std::uint64_t nextPageNumber_ = 0;
    std::uint64_t prevPageNumber_ = 0;
    std::uint64_t numberOfTotalPages_ = 0;
    std::uint64_t numberOfItemsPerPage_ = 0;
};
