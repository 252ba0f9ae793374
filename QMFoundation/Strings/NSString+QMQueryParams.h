// NSString(QMQueryParams): a query string as a dictionary.
#pragma once

#include "Platform/Foundation/Value.h"

#include <string_view>

// Pieces between "&" that hold exactly one "=" become key and value, as
// written: nothing is percent-decoded. A piece without "=" or with several is
// dropped; a later duplicate key replaces the earlier value.
platform::Dictionary queryParams(std::string_view string);
