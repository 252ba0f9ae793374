// NSURL(QMCommon): user-part and path surgery on URLs, working on the URL's
// text as written.
#pragma once

#include "Platform/Foundation/URL.h"
#include "Platform/Foundation/Value.h"

#include <optional>
#include <string>
#include <string_view>

// The user part exactly as written (not decoded): from after the first "://"
// (or the start) to the first "@" anywhere in the text. Nothing without "@".
std::optional<std::string> rawUser(const platform::URL& url);

// The URL with every "<rawUser>@" removed from its text; the URL itself when
// it has no user part. Nothing when the edited text no longer parses.
std::optional<platform::URL> URLByRemovingUser(const platform::URL& url);

// The URL cut to its absolute string's length minus its decoded path's
// length, both counted in UTF-16 units. This removes exactly the path when the
// path ends the text; with a query, a fragment or escapes in the path the cut
// falls elsewhere, and that arithmetic is kept on purpose.
std::optional<platform::URL> URLByDeletingPath(const platform::URL& url);

// The URL with `user` as its user part, percent-encoded for that place: an
// existing "<rawUser>@" is replaced everywhere in the text, otherwise the user
// goes after every "://" (or in front of a text without one). A missing or
// empty user removes the user part instead. Nothing when the result does not
// parse.
std::optional<platform::URL> URLBySettingUser(const platform::URL& url, std::optional<std::string_view> user);

// The URL with the dictionary's `URLEncodedQueryString` added to its query
// ("&" when it has one, "?" otherwise). The URL itself for a missing or empty
// dictionary; nothing when the result does not parse.
std::optional<platform::URL> URLByAppendingQueryParams(const platform::URL& url,
                                                       const std::optional<platform::Dictionary>& params);
