// NSDictionary(QMURLEncoding): a dictionary as a URL query string.
#pragma once

#include "Platform/Foundation/Value.h"

#include <string>

// "key=value&key=value" in the dictionary's own order, each key and each
// value's description ("%@") percent-encoded with `stringByURLEncodingString`,
// so "&" and "=" inside them cannot split a pair. An empty dictionary gives "".
std::string URLEncodedQueryString(const platform::Dictionary& dictionary);
