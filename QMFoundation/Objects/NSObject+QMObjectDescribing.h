// NSObject(QMObjectDescribing): the "name: value" descriptions that many
// classes of the library return from `description`.
//
// A class lists its attributes by overriding `attributeKeys()` and exposing
// each one through its property table; then
//
//   std::string QMKeychain::description() const { return defaultDescription(*this); }
//
// prints "QMKeychain <0x5581...> { path: /home/jo/login.keychain }".
//
// Every operation reads the receiver's values on the calling thread and
// takes no lock.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Value.h"

#include <optional>
#include <string>

// "<Class> <0x...> {\n\tkey: value,\n\tkey: value\n}". A receiver without
// attribute keys gives only "<Class> <0x0x...> { ", with no closing brace;
// callers have long relied on that shape, so it stays.
std::string prettyDescription(const platform::Object& object);

// "<Class> <0x...> { key: value, key: value }", or the same truncated form as
// `prettyDescription` when there are no attribute keys.
std::string defaultDescription(const platform::Object& object);

// "<Class> <0x...> { pair, pair }" with one pair per item: a string item names
// an attribute of the receiver; a dictionary item supplies a label and a value
// directly (only its last key is used).
std::string prettyDescriptionWithItems(const platform::Object& object, const platform::Array& items);

// "<Class> <0x...> <pretty-printed JSON>". The dictionary must be given and be
// a valid JSON object; anything else is a programming error, raised as
// "NSInternalInconsistencyException".
std::string prettyDescriptionWithDictionary(const platform::Object& object,
                                            const std::optional<platform::Dictionary>& dictionary);

// The value's description, or the null object's ("<null>") for nothing.
std::string prettyDescriptionForObject(const platform::Object& object, const platform::Value& value);
