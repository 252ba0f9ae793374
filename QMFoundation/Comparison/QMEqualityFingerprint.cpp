#include "QMFoundation/Comparison/QMEqualityFingerprint.h"

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/OrderedSet.h"

#include <functional>
#include <string_view>

namespace {

std::uint64_t mix(std::uint64_t kind, std::uint64_t hash)
{
    // A multiplicative mix keeps the kind from cancelling against the hash.
    return (hash ^ (kind * 0x9E3779B97F4A7C15ull)) * 0xBF58476D1CE4E5B9ull;
}

std::uint64_t hashOf(std::string_view bytes)
{
    return std::hash<std::string_view>{}(bytes);
}

std::uint64_t hashOf(double number)
{
    return std::hash<double>{}(number == 0 ? 0.0 : number);  // -0 equals 0
}

}  // namespace

std::uint64_t equalityFingerprint(const platform::Value& value)
{
    using Kind = platform::Value::Kind;
    // Numbers of every kind share one tag, since they compare with one another.
    constexpr std::uint64_t kNumberTag = 100;
    switch (value.kind()) {
    case Kind::Boolean:
    case Kind::Integer:
    case Kind::Double:
        return mix(kNumberTag, hashOf(value.doubleValue().value_or(0)));
    case Kind::String:
        return mix(static_cast<std::uint64_t>(Kind::String), hashOf(*value.string()));
    case Kind::Data: {
        const auto& data = *value.data();
        return mix(static_cast<std::uint64_t>(Kind::Data),
                   hashOf(std::string_view(reinterpret_cast<const char*>(data.data()), data.size())));
    }
    case Kind::Date:
        return mix(static_cast<std::uint64_t>(Kind::Date), hashOf(value.date()->timeIntervalSince1970()));
    case Kind::URL:
        return mix(static_cast<std::uint64_t>(Kind::URL), hashOf(value.url()->absoluteString()));
    case Kind::Array:
        return mix(static_cast<std::uint64_t>(Kind::Array), value.array()->size());
    case Kind::Dictionary:
        return mix(static_cast<std::uint64_t>(Kind::Dictionary), value.dictionary()->size());
    case Kind::Set:
        return mix(static_cast<std::uint64_t>(Kind::Set), value.set()->size());
    case Kind::OrderedSet:
        return mix(static_cast<std::uint64_t>(Kind::OrderedSet), value.orderedSet()->size());
    case Kind::Error: {
        const auto error = value.error();
        return mix(static_cast<std::uint64_t>(Kind::Error), hashOf(error->domain()) ^ static_cast<std::uint64_t>(error->code()));
    }
    case Kind::Nothing:
    case Kind::Null:
    case Kind::Object:
        break;
    }
    return mix(static_cast<std::uint64_t>(value.kind()), 0);
}

std::vector<std::uint64_t> equalityFingerprints(const platform::Array& values)
{
    std::vector<std::uint64_t> fingerprints;
    fingerprints.reserve(values.size());
    for (const auto& value : values) {
        fingerprints.push_back(equalityFingerprint(value));
    }
    return fingerprints;
}
