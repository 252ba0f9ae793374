// NSString(QMBase64Transcoding): Base64 text of data, wrapped for mail and
// PEM-style consumers, and the way back.
#pragma once

#include "Platform/Foundation/Value.h"

#include <string>
#include <string_view>

// The standard alphabet; "=" pads.
inline constexpr std::string_view QMBase64Alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Standard alphabet with "=" padding, broken into lines of exactly 72
// characters, each followed by CR LF; an output whose length is a multiple of
// 72 therefore ends with CR LF. Empty data gives "".
std::string stringWithDataUsingBase64Encoding(const platform::Data& data);

// Same as `dataWithBase64EncodedString(string)`: forgiving, never fails.
platform::Data dataUsingBase64Encoding(std::string_view string);
