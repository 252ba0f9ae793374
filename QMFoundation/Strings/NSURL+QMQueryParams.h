// NSURL(QMQueryParams): a URL's query as a dictionary.
#pragma once

#include "Platform/Foundation/URL.h"
#include "Platform/Foundation/Value.h"

#include <optional>

// `queryParams` of the query string; nothing when the URL has no query.
std::optional<platform::Dictionary> queryParams(const platform::URL& url);
