// RegularExpressionOptions: how RegularExpression's options become PCRE2's.
// Internal to Platform/Foundation: shared by RegularExpression.cpp and the
// build step that serializes expressions the library compiles at start
// (encode_uri_grammar), which links PCRE2 but not the library, so that both
// compile with the very same settings.
#pragma once

#ifndef PCRE2_CODE_UNIT_WIDTH
#define PCRE2_CODE_UNIT_WIDTH 8
#endif
#include "Platform/Foundation/RegularExpression.h"

#include <pcre2.h>

#include <cstdint>
#include <string_view>
#include <vector>

namespace platform::internal {

inline std::uint32_t pcre2CompileOptions(unsigned options)
{
    std::uint32_t flags = PCRE2_UTF | PCRE2_UCP | PCRE2_MATCH_INVALID_UTF;
    if (options & RegularExpression::CaseInsensitive) {
        flags |= PCRE2_CASELESS;
    }
    if (options & RegularExpression::AllowCommentsAndWhitespace) {
        flags |= PCRE2_EXTENDED;
    }
    if (options & RegularExpression::IgnoreMetacharacters) {
        // A literal pattern takes no syntax options; in UTF mode its caseless
        // matching still folds every Unicode letter.
        return (flags & ~(PCRE2_UCP | PCRE2_EXTENDED)) | PCRE2_LITERAL;
    }
    if (options & RegularExpression::DotMatchesLineSeparators) {
        flags |= PCRE2_DOTALL;
    }
    if (options & RegularExpression::AnchorsMatchLines) {
        flags |= PCRE2_MULTILINE;
    }
    return flags;
}

// Every Unicode line break ends a line, as the platform's expressions treat
// them: "." crosses none of CR, LF, CRLF, VT, FF, NEL, LS and PS, and "$" and
// multi-line anchors stop at each. PCRE2 alone would know only LF.
inline constexpr std::uint32_t kPCRE2Newline = PCRE2_NEWLINE_ANY;

// The compile context every expression is compiled with, made once.
inline pcre2_compile_context* pcre2CompileContext()
{
    static pcre2_compile_context* const context = [] {
        auto* made = pcre2_compile_context_create(nullptr);
        pcre2_set_newline(made, kPCRE2Newline);
        return made;
    }();
    return context;
}

// What pcre2_serialize_encode makes of `pattern` compiled as RegularExpression
// compiles it with `options`; empty when it does not compile or serialize.
inline std::vector<std::uint8_t> pcre2EncodedPattern(std::string_view pattern, unsigned options)
{
    int errorCode = 0;
    PCRE2_SIZE errorOffset = 0;
    pcre2_code* code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(),
                                     pcre2CompileOptions(options), &errorCode, &errorOffset, pcre2CompileContext());
    std::vector<std::uint8_t> encoded;
    if (code == nullptr) {
        return encoded;
    }
    const pcre2_code* codes[] = {code};
    std::uint8_t* bytes = nullptr;
    PCRE2_SIZE size = 0;
    if (pcre2_serialize_encode(codes, 1, &bytes, &size, nullptr) == 1) {
        encoded.assign(bytes, bytes + size);
        pcre2_serialize_free(bytes);
    }
    pcre2_code_free(code);
    return encoded;
}

}  // namespace platform::internal
