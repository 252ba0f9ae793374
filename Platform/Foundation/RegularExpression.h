// RegularExpression: a compiled PCRE2 pattern over UTF-8 text, with Unicode
// properties.
//
// Matching follows the platform's defaults: "^" anchors at the start of the
// whole subject and "." does not cross a line break unless asked; every
// Unicode line break counts as one (CR, LF, CRLF, VT, FF, NEL, LS, PS).
// Invalid UTF-8 in a subject never matches a character but is no error. A
// compiled expression is immutable and may be shared between threads.
//
//   ErrorRef error;
//   auto expression = RegularExpression::create("Password for '(.+)':",
//                                               RegularExpression::CaseInsensitive, &error);
//   if (auto match = expression->firstMatch(prompt)) match->substring(prompt, 1);
#pragma once

#include "Platform/Foundation/Value.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct pcre2_real_match_data_8;

namespace platform {

class RegularExpression;
using RegularExpressionRef = std::shared_ptr<const RegularExpression>;

// One match: the byte range of the whole match (group 0) and of each capture
// group; a group that took no part has no range.
struct RegularExpressionMatch {
    struct Range {
        std::size_t location;
        std::size_t length;
    };
    std::vector<std::optional<Range>> ranges;

    std::size_t numberOfRanges() const { return ranges.size(); }
    std::optional<std::string> substring(std::string_view subject, std::size_t group) const;
};

class RegularExpression {
public:
    // The option values are the platform's.
    enum Options : unsigned {
        CaseInsensitive = 1u << 0,
        AllowCommentsAndWhitespace = 1u << 1,
        IgnoreMetacharacters = 1u << 2,
        DotMatchesLineSeparators = 1u << 3,
        AnchorsMatchLines = 1u << 4,
    };

    // Nothing, with an error whose description carries the compiler's message
    // and offset, when the pattern does not compile.
    [[nodiscard]] static RegularExpressionRef create(std::string_view pattern, unsigned options, ErrorRef* error = nullptr);
    // The pattern taken as literal text.
    static RegularExpressionRef literal(std::string_view text, unsigned options = 0);
    // As create() for a pattern known to compile, from `code`: what
    // pcre2_serialize_encode made of that one expression at build time.
    // Decoding costs a few microseconds where compiling a large grammar costs
    // a hundred and more. PCRE2 trusts the bytes, so they must come from an
    // encoding and never from outside. Nothing checks that `code` was made
    // from `pattern`; what is checked is that it decodes under the PCRE2 this
    // program runs with (another version refuses it) to one expression
    // compiled with `options`. When it does not, the pattern is compiled
    // instead; `*decoded` says which happened.
    static RegularExpressionRef createFromCode(std::string_view pattern, unsigned options,
                                               std::span<const std::uint8_t> code, bool* decoded = nullptr);

    ~RegularExpression();
    RegularExpression(const RegularExpression&) = delete;
    RegularExpression& operator=(const RegularExpression&) = delete;

    const std::string& pattern() const { return pattern_; }
    unsigned options() const { return options_; }
    std::size_t numberOfCaptureGroups() const;

    // An expression compiles itself to machine code once it has been matched
    // often (some hundred microseconds once, then each match several times
    // faster, with the same results); this does so now. Safe while other
    // threads match. Without JIT support in PCRE2 nothing changes.
    void compileForRepeatedUse() const;
    // Whether matches run machine code yet.
    bool runsMachineCode() const;

    std::optional<RegularExpressionMatch> firstMatch(std::string_view subject) const;
    std::size_t numberOfMatches(std::string_view subject) const;

private:
    struct Code;
    RegularExpression(std::string pattern, unsigned options, std::unique_ptr<Code> code);
    // pcre2_match from `start`, in machine code when there is some.
    int match(std::string_view subject, std::size_t start, pcre2_real_match_data_8* data) const;

    std::string pattern_;
    unsigned options_;
    std::unique_ptr<Code> code_;
};

}  // namespace platform
