// NSData(QMStringDecoding): text from raw bytes, such as a command's output.
#pragma once

#include "Platform/Foundation/Value.h"

#include <optional>
#include <string>

// The bytes as UTF-8 text; nothing when they are not valid UTF-8.
std::optional<std::string> stringUsingUTF8Encoding(const platform::Data& data);

// UTF-8 when the bytes are valid UTF-8, otherwise the bytes read as Mac OS
// Roman (returned as UTF-8). Mac OS Roman assigns a character to every byte,
// so this always gives text.
std::optional<std::string> stringUsingBestEncoding(const platform::Data& data);
