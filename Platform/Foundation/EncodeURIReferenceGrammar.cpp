// encode_uri_grammar OUTPUT: writes a C++ source that defines the URL grammar
// as PCRE2's serialized code (kURIReferenceGrammarCode), compiled with the
// settings every RegularExpression compiles with. Run by the build; links
// PCRE2 alone, since the library it serves needs its output.
#include "Platform/Foundation/RegularExpressionOptions.h"
#include "Platform/Foundation/URIReferenceGrammar.h"

#include <cstdio>
#include <fstream>

namespace {

int fail(const char* what)
{
    std::fprintf(stderr, "encode_uri_grammar: %s\n", what);
    return 1;
}

}  // namespace

int main(int argc, char** argv)
{
    using namespace platform::internal;
    if (argc != 2) {
        return fail("usage: encode_uri_grammar OUTPUT");
    }
    const auto bytes = pcre2EncodedPattern(kURIReferenceGrammar, kURIReferenceGrammarOptions);
    if (bytes.empty()) {
        return fail("the grammar does not compile or serialize");
    }

    std::ofstream output(argv[1], std::ios::trunc);
    output << "// Made by encode_uri_grammar at build time.\n"
              "#include \"Platform/Foundation/URIReferenceGrammar.h\"\n\n"
              "namespace platform::internal {\n\n"
              // PCRE2 reads the 32-bit fields of the stream in place.
              "alignas(8) const std::uint8_t kURIReferenceGrammarCode[] = {";
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        output << (index % 16 == 0 ? "\n    " : " ") << static_cast<unsigned>(bytes[index]) << ',';
    }
    output << "\n};\nconst std::size_t kURIReferenceGrammarCodeSize = " << bytes.size() << ";\n\n"
              "}  // namespace platform::internal\n";
    output.close();
    return output ? 0 : fail("cannot write the output");
}
