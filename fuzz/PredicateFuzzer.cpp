// Any text as a predicate format, as a fetch helper may be handed one: it
// parses or raises the invalid-argument exception, never crashes or hangs.
// What parses prints back into text that parses and prints the same again;
// evaluating it and translating it into SQL raise at most the platform's
// exceptions.
#include "Platform/Foundation/Exception.h"
#include "Platform/Predicates/Predicate.h"
#include "Platform/Predicates/PredicateSQL.h"

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

using namespace platform;

// One entity "E" with two attributes, a to-one and a to-many to itself.
class Mapping final : public PredicateSQLMapping {
public:
    std::optional<Property> property(std::string_view, std::string_view key) const override
    {
        if (key == "name" || key == "age") {
            return Property{Property::Kind::Attribute, std::string(key), ""};
        }
        if (key == "next") {
            return Property{Property::Kind::ToOne, "next", "E"};
        }
        if (key == "items") {
            return Property{Property::Kind::ToMany, "", "E"};
        }
        return std::nullopt;
    }
    std::string toOneJoin(std::string_view, std::string_view, std::string_view alias,
                          std::string_view destination) const override
    {
        return "E AS " + std::string(destination) + " ON " + std::string(destination) + ".pk = " + std::string(alias) +
            ".next";
    }
    RowSource toManySource(std::string_view, std::string_view, std::string_view alias,
                           std::string_view destination) const override
    {
        return {"E AS " + std::string(destination), std::string(destination) + ".owner = " + std::string(alias) + ".pk"};
    }
    std::string primaryKeyColumn(std::string_view) const override { return "pk"; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    const std::string format(reinterpret_cast<const char*>(bytes), size);
    const Array arguments = {"name", 42, "x'; --", Array{1, "a", Value()}, Value(), 3.5, true, "items.age", -7};
    PredicateRef predicate;
    try {
        predicate = Predicate::predicateWithFormat(format, arguments);
    } catch (const Exception& exception) {
        if (exception.name() != NSInvalidArgumentException || !exception.userInfo().contains("position")) {
            std::abort();
        }
        return 0;
    }
    // A key given through %K may hold characters no key path literal can
    // (the argument "x'; --"): only then may the printed text fail to parse.
    // A constant array prints as a literal list, so the texts are compared,
    // not the trees.
    const std::string printed = predicate->predicateFormat();
    try {
        if (Predicate::predicateWithFormat(printed)->predicateFormat() != printed) {
            std::abort();
        }
    } catch (const Exception&) {
        if (format.find("%K") == std::string::npos) {
            std::abort();
        }
    }
    const Value object = Dictionary{{"name", "Ada"}, {"age", 42}, {"next", Dictionary{{"name", "Bob"}}},
                                    {"items", Array{Dictionary{{"age", 1}}, Dictionary{{"age", Value()}}}}};
    try {
        predicate->evaluateWithObject(object);
    } catch (const Exception&) {
    }
    try {
        Mapping mapping;
        PredicateSQLTranslator translator(mapping, "E");
        translator.where(*predicate);
    } catch (const Exception&) {
    }
    return 0;
}
