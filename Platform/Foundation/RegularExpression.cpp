#define PCRE2_CODE_UNIT_WIDTH 8
#include "Platform/Foundation/RegularExpression.h"

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/RegularExpressionOptions.h"

#include <pcre2.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>

namespace platform {
namespace {

constexpr std::string_view kErrorDomain = "NSCocoaErrorDomain";
constexpr std::int64_t kPatternErrorCode = 2048;  // the platform's "invalid pattern" code

std::string compilerMessage(int code)
{
    PCRE2_UCHAR buffer[256];
    const int length = pcre2_get_error_message(code, buffer, sizeof buffer);
    return length < 0 ? "unknown error" : std::string(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(length));
}

struct MatchDataDeleter {
    void operator()(pcre2_match_data* data) const { pcre2_match_data_free(data); }
};

// The calling thread's match data, with room for at least `pairs` offset
// pairs, reused by every match the thread runs. PCRE2 keeps its backtracking
// frames in the match data (20 KiB and more, allocated at the first match),
// so match data made per call cost a large allocation and release per match:
// a URL parse spent most of its time there. Nothing calls out while a match
// runs, so one per thread is enough.
pcre2_match_data* threadMatchData(std::uint32_t pairs)
{
    thread_local std::unique_ptr<pcre2_match_data, MatchDataDeleter> data;
    if (!data || pcre2_get_ovector_count(data.get()) < pairs) {
        data.reset(pcre2_match_data_create(pairs, nullptr));
    }
    return data.get();
}

}  // namespace

// An expression starts out interpreted: compiling to machine code costs some
// hundred microseconds, more than a program that matches a few times ever
// spends matching. Once it has been matched often it earns that back, and the
// thread whose match reaches the count compiles a copy (the interpreted code
// is never changed, so matches running meanwhile are undisturbed) and
// publishes it whole; later matches take the copy.
constexpr std::uint32_t kMatchesBeforeMachineCode = 64;

struct RegularExpression::Code {
    pcre2_code* compiled = nullptr;
    std::atomic<pcre2_code*> machineCode{nullptr};
    std::atomic<std::uint32_t> matches{0};
    std::once_flag machineCodeMade;

    ~Code()
    {
        pcre2_code_free(machineCode.load(std::memory_order_acquire));
        pcre2_code_free(compiled);
    }

    // The code to match with now: the machine code once it is published.
    const pcre2_code* current()
    {
        if (const auto* machine = machineCode.load(std::memory_order_acquire)) {
            return machine;
        }
        if (matches.fetch_add(1, std::memory_order_relaxed) + 1 == kMatchesBeforeMachineCode) {
            makeMachineCode();
        }
        return compiled;
    }

    void makeMachineCode()
    {
        std::call_once(machineCodeMade, [this] {
            pcre2_code* copy = pcre2_code_copy(compiled);
            if (copy == nullptr) {
                return;
            }
            // Without JIT support in PCRE2 (or memory for it) the copy would
            // only interpret again.
            if (pcre2_jit_compile(copy, PCRE2_JIT_COMPLETE) != 0) {
                pcre2_code_free(copy);
                return;
            }
            machineCode.store(copy, std::memory_order_release);
        });
    }
};

std::optional<std::string> RegularExpressionMatch::substring(std::string_view subject, std::size_t group) const
{
    if (group >= ranges.size() || !ranges[group]) {
        return std::nullopt;
    }
    return std::string(subject.substr(ranges[group]->location, ranges[group]->length));
}

RegularExpression::RegularExpression(std::string pattern, unsigned options, std::unique_ptr<Code> code)
    : pattern_(std::move(pattern)), options_(options), code_(std::move(code))
{
}

RegularExpression::~RegularExpression() = default;

RegularExpressionRef RegularExpression::create(std::string_view pattern, unsigned options, ErrorRef* error)
{
    int errorCode = 0;
    PCRE2_SIZE errorOffset = 0;
    auto code = std::make_unique<Code>();
    code->compiled = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(),
                                   internal::pcre2CompileOptions(options), &errorCode, &errorOffset,
                                   internal::pcre2CompileContext());
    if (code->compiled == nullptr) {
        if (error != nullptr) {
            const auto description = "The value \u201c" + std::string(pattern) + "\u201d is invalid: "
                + compilerMessage(errorCode) + " at offset " + std::to_string(errorOffset) + ".";
            *error = Error::create(std::string(kErrorDomain), kPatternErrorCode,
                                   Dictionary{{NSLocalizedDescriptionKey, description}, {"NSInvalidValue", pattern}});
        }
        return nullptr;
    }
    return RegularExpressionRef(new RegularExpression(std::string(pattern), options, std::move(code)));
}

RegularExpressionRef RegularExpression::createFromCode(std::string_view pattern, unsigned options,
                                                       std::span<const std::uint8_t> code, bool* decoded)
{
    auto made = std::make_unique<Code>();
    pcre2_code* decodedCode = nullptr;
    const int count = pcre2_serialize_get_number_of_codes(code.data());
    if (count == 1 && pcre2_serialize_decode(&decodedCode, 1, code.data(), nullptr) == 1) {
        made->compiled = decodedCode;
    }
    std::uint32_t argumentOptions = 0;
    std::uint32_t newline = 0;
    const bool asCompiled = made->compiled != nullptr &&
                            pcre2_pattern_info(made->compiled, PCRE2_INFO_ARGOPTIONS, &argumentOptions) == 0 &&
                            pcre2_pattern_info(made->compiled, PCRE2_INFO_NEWLINE, &newline) == 0 &&
                            argumentOptions == internal::pcre2CompileOptions(options) && newline == internal::kPCRE2Newline;
    if (decoded != nullptr) {
        *decoded = asCompiled;
    }
    if (!asCompiled) {
        return create(pattern, options);
    }
    return RegularExpressionRef(new RegularExpression(std::string(pattern), options, std::move(made)));
}

RegularExpressionRef RegularExpression::literal(std::string_view text, unsigned options)
{
    return create(text, options | IgnoreMetacharacters);
}

std::size_t RegularExpression::numberOfCaptureGroups() const
{
    std::uint32_t count = 0;
    pcre2_pattern_info(code_->compiled, PCRE2_INFO_CAPTURECOUNT, &count);
    return count;
}

void RegularExpression::compileForRepeatedUse() const
{
    code_->makeMachineCode();
}

bool RegularExpression::runsMachineCode() const
{
    return code_->machineCode.load(std::memory_order_acquire) != nullptr;
}

int RegularExpression::match(std::string_view subject, std::size_t start, pcre2_real_match_data_8* data) const
{
    const auto* bytes = reinterpret_cast<PCRE2_SPTR>(subject.data());
    const int result = pcre2_match(code_->current(), bytes, subject.size(), start, 0, data, nullptr);
    if (result != PCRE2_ERROR_JIT_STACKLIMIT) {
        return result;
    }
    // Machine code runs on a small fixed stack that a long subject can
    // exhaust; the interpreter, whose frames live on the heap, gives the
    // answer that the pattern does.
    return pcre2_match(code_->compiled, bytes, subject.size(), start, PCRE2_NO_JIT, data, nullptr);
}

std::optional<RegularExpressionMatch> RegularExpression::firstMatch(std::string_view subject) const
{
    const auto groups = numberOfCaptureGroups() + 1;
    auto* data = threadMatchData(static_cast<std::uint32_t>(groups));
    const int result = match(subject, 0, data);
    if (result < 0) {
        return std::nullopt;
    }
    // Only the first `result` pairs are this match's (groups past them took no
    // part); the rest may still hold an earlier match of this thread.
    const auto* offsets = pcre2_get_ovector_pointer(data);
    RegularExpressionMatch match;
    match.ranges.resize(groups);
    for (std::size_t group = 0; group < std::min(groups, static_cast<std::size_t>(result)); ++group) {
        const auto start = offsets[2 * group];
        const auto end = offsets[2 * group + 1];
        if (start != PCRE2_UNSET) {
            match.ranges[group] = RegularExpressionMatch::Range{start, end - start};
        }
    }
    return match;
}

std::size_t RegularExpression::numberOfMatches(std::string_view subject) const
{
    auto* data = threadMatchData(1);
    std::size_t count = 0;
    PCRE2_SIZE start = 0;
    while (start <= subject.size()) {
        if (match(subject, start, data) < 0) {
            break;
        }
        ++count;
        const auto* offsets = pcre2_get_ovector_pointer(data);
        // An empty match moves on by one character so the scan always ends.
        start = offsets[1] > offsets[0] ? offsets[1] : offsets[1] + 1;
        while (start < subject.size() && (static_cast<unsigned char>(subject[start]) & 0xC0) == 0x80) {
            ++start;
        }
    }
    return count;
}

}  // namespace platform
