// NSURL(QMCommon): user-part and path surgery on URLs, working on the URL's
// text as written.
#pragma once

#include "Platform/Foundation/URL.h"

#include <optional>
#include <string>

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
