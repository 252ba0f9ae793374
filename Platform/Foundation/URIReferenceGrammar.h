// URIReferenceGrammar: the expression URL parses with. Internal to
// Platform/Foundation. The build compiles it once more, in
// encode_uri_grammar, which links PCRE2 but not this library, and embeds
// the serialized code it makes; URL decodes that instead of compiling.
#pragma once

#include "Platform/Foundation/RegularExpression.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace platform::internal {

// RFC 3986's grammar of a URI reference (section 4.1, with the rules of
// appendix A), written out for PCRE2. Every component the URL keeps has its own
// group, present exactly when its delimiter is: 1 scheme, 2 user information,
// 3 host (the text inside the brackets of an IP literal), 4 port, 5 query,
// 6 fragment. The host of an IPv4 address is read as a registered name, which
// takes the same text. The named rules come last, so that they take no group
// numbers before the components.
inline constexpr std::string_view kURIReferenceGrammar = R"grammar(
\A
(?: ( [A-Za-z] [A-Za-z0-9+.\-]* ) : )?                                             # scheme
(?: // (?: ( (?: (?&unreserved) | (?&pct) | (?&subdelims) | : )*+ ) @ )?           # authority: user information,
       (?| \[ ( (?&ipv6) | (?&ipvfuture) ) \] | ( (?: (?&unreserved) | (?&pct) | (?&subdelims) )*+ ) )  # host,
       (?: : ( [0-9]*+ ) )?                                                        # port,
       (?: / (?&segment) )*+                                                       # then path-abempty
  |    / (?: (?&pchar)++ (?: / (?&segment) )*+ )?                                  # path-absolute
  |    (?(1) (?&pchar)++ | (?: (?&unreserved) | (?&pct) | (?&subdelims) | @ )++ )  # path-rootless, or without a
       (?: / (?&segment) )*+                                                       #   scheme path-noscheme (no colon)
  |    )                                                                           # path-empty
(?: \? ( (?: (?&pchar) | [/?] )*+ ) )?                                             # query
(?: \# ( (?: (?&pchar) | [/?] )*+ ) )?                                             # fragment
\z
(?(DEFINE)
  (?<unreserved>  [A-Za-z0-9\-._~] )
  (?<pct>         %[0-9A-Fa-f]{2} )
  (?<subdelims>   [!$&'()*+,;=] )
  (?<pchar>       (?&unreserved) | (?&pct) | (?&subdelims) | [:@] )
  (?<segment>     (?&pchar)*+ )
  (?<h16>         [0-9A-Fa-f]{1,4} )
  (?<decoctet>    25[0-5] | 2[0-4][0-9] | 1[0-9]{2} | [1-9]?[0-9] )
  (?<ipv4>        (?&decoctet) (?: \. (?&decoctet) ){3} )
  (?<ls32>        (?&h16) : (?&h16) | (?&ipv4) )
  (?<ipv6>                                       (?: (?&h16) : ){6} (?&ls32)
          |                                   :: (?: (?&h16) : ){5} (?&ls32)
          | (?:                     (?&h16) )? :: (?: (?&h16) : ){4} (?&ls32)
          | (?: (?: (?&h16) : ){0,1} (?&h16) )? :: (?: (?&h16) : ){3} (?&ls32)
          | (?: (?: (?&h16) : ){0,2} (?&h16) )? :: (?: (?&h16) : ){2} (?&ls32)
          | (?: (?: (?&h16) : ){0,3} (?&h16) )? ::     (?&h16) :      (?&ls32)
          | (?: (?: (?&h16) : ){0,4} (?&h16) )? ::                    (?&ls32)
          | (?: (?: (?&h16) : ){0,5} (?&h16) )? ::     (?&h16)
          | (?: (?: (?&h16) : ){0,6} (?&h16) )? :: )
  (?<ipvfuture>   v [0-9A-Fa-f]+ \. (?: (?&unreserved) | (?&subdelims) | : )+ )
)
)grammar";

inline constexpr unsigned kURIReferenceGrammarOptions = RegularExpression::AllowCommentsAndWhitespace;

// The grammar as pcre2_serialize_encode gives it, made by the build.
extern const std::uint8_t kURIReferenceGrammarCode[];
extern const std::size_t kURIReferenceGrammarCodeSize;

}  // namespace platform::internal
