// NSData(QMBase64Transcoding): data from Base64 text, and its Base64 text.
#pragma once

#include "Platform/Foundation/Value.h"

#include <string>
#include <string_view>

// Decodes as far as the text goes and never reports malformed input:
// whitespace and characters outside the alphabet are passed over, the first
// "=" ends decoding, and a trailing partial group yields the bytes it
// completes. Text that is not pure ASCII gives empty data.
platform::Data dataWithBase64EncodedString(std::string_view string);

// Both are `stringWithDataUsingBase64Encoding(data)`: 72-character CR LF lines.
std::string stringUsingBase64Encoding(const platform::Data& data);
std::string encodeBase64(const platform::Data& data);
