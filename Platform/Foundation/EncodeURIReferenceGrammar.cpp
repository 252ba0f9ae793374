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
    pcre2_compile_context* context = pcre2_compile_context_create(nullptr);
    pcre2_set_newline(context, kPCRE2Newline);
    int errorCode = 0;
    PCRE2_SIZE errorOffset = 0;
    pcre2_code* code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(kURIReferenceGrammar.data()), kURIReferenceGrammar.size(),
                                     pcre2CompileOptions(kURIReferenceGrammarOptions), &errorCode, &errorOffset, context);
    if (code == nullptr) {
        return fail("the grammar does not compile");
    }
    const pcre2_code* codes[] = {code};
    std::uint8_t* bytes = nullptr;
    PCRE2_SIZE size = 0;
    if (pcre2_serialize_encode(codes, 1, &bytes, &size, nullptr) != 1) {
        return fail("the grammar does not serialize");
    }

    std::ofstream output(argv[1], std::ios::trunc);
    output << "// Made by encode_uri_grammar at build time.\n"
              "#include \"Platform/Foundation/URIReferenceGrammar.h\"\n\n"
              "namespace platform::internal {\n\n"
              // PCRE2 reads the 32-bit fields of the stream in place.
              "alignas(8) const std::uint8_t kURIReferenceGrammarCode[] = {";
    for (PCRE2_SIZE index = 0; index < size; ++index) {
        output << (index % 16 == 0 ? "\n    " : " ") << static_cast<unsigned>(bytes[index]) << ',';
    }
    output << "\n};\nconst std::size_t kURIReferenceGrammarCodeSize = " << size << ";\n\n"
              "}  // namespace platform::internal\n";
    pcre2_serialize_free(bytes);
    pcre2_code_free(code);
    pcre2_compile_context_free(context);
    output.close();
    return output ? 0 : fail("cannot write the output");
}
