#include "regular_expression.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>
#include <new>

#include "base/handle.h"

namespace tarnwick::qvx {

namespace {

constexpr std::size_t firstStackSize = 32768;       // bytes
constexpr std::size_t maxStackSize = 1048576;       // of compiled code
constexpr std::uint32_t maxHeapSize = 32768;        // KiB, where expressions cannot be compiled to code
constexpr std::size_t maxSteps = 1'000'000;         // from one place of the text
constexpr std::size_t maxAllSteps = 1'000'000'000;  // from all places: seconds at the worst

using CompileContext = std::unique_ptr<pcre2_compile_context, FreeWith<pcre2_compile_context_free>>;

// An empty view may have no address, which PCRE2 refuses.
PCRE2_SPTR bytesOf(std::string_view text) { return reinterpret_cast<PCRE2_SPTR>(text.data() ? text.data() : ""); }

std::string describe(int error) {
    PCRE2_UCHAR text[256];
    pcre2_get_error_message(error, text, sizeof text);
    return reinterpret_cast<const char*>(text);
}

std::uint32_t flagsOf(const RegularExpression::Options& options) {
    const std::uint32_t kind = options.literal ? PCRE2_LITERAL : PCRE2_NEVER_UTF;
    const std::uint32_t lines = options.literal ? 0
                                : options.lines ? PCRE2_MULTILINE
                                                : PCRE2_DOTALL | PCRE2_DOLLAR_ENDONLY;
    return kind | lines | (options.ignoreCase ? PCRE2_CASELESS : 0);
}

template <typename Handle>
Handle* allocated(Handle* handle) {
    return handle ? handle : throw std::bad_alloc();
}

}  // namespace

Result<RegularExpression> RegularExpression::compile(std::string_view expression, const Options& options) {
    const CompileContext context(allocated(pcre2_compile_context_create(nullptr)));
    pcre2_set_newline(context.get(), PCRE2_NEWLINE_LF);
    int error = 0;
    PCRE2_SIZE place = 0;
    auto* code = pcre2_compile(bytesOf(expression), expression.size(), flagsOf(options), &error, &place, context.get());
    if (!code) return Error{describe(error) + " at character " + std::to_string(place), 0, std::string(expression)};
    // Without a compiler for this machine, or the permission to run new code, the expression is interpreted.
    static_cast<void>(pcre2_jit_compile(code, PCRE2_JIT_COMPLETE));
    return RegularExpression({code, [](pcre2_code* used) { pcre2_code_free(used); }});
}

ExpressionSearch::ExpressionSearch(RegularExpression expression)
    : expression_(std::move(expression)),
      stack_(pcre2_jit_stack_create(firstStackSize, maxStackSize, nullptr)),
      context_(allocated(pcre2_match_context_create(nullptr))),
      data_(allocated(pcre2_match_data_create(1, nullptr))) {
    pcre2_set_heap_limit(context_.get(), maxHeapSize);
    if (stack_) pcre2_jit_stack_assign(context_.get(), nullptr, stack_.get());
}

Result<std::optional<ExpressionSearch::Match>> ExpressionSearch::find(std::string_view text, std::size_t from) {
    // PCRE2 counts the steps from each place of the text anew.
    const std::size_t places = text.size() - from + 1;
    pcre2_set_match_limit(context_.get(), static_cast<std::uint32_t>(std::min(maxSteps, maxAllSteps / places)));
    const int found =
        pcre2_match(expression_.code_.get(), bytesOf(text), text.size(), from, 0, data_.get(), context_.get());
    if (found == PCRE2_ERROR_NOMATCH) return std::optional<Match>();
    if (found < 0) return Error{describe(found)};
    const PCRE2_SIZE* bounds = pcre2_get_ovector_pointer(data_.get());
    return std::optional(Match{bounds[0], bounds[1]});
}

void ExpressionSearch::Free::operator()(pcre2_match_context* context) const { pcre2_match_context_free(context); }
void ExpressionSearch::Free::operator()(pcre2_match_data* data) const { pcre2_match_data_free(data); }
void ExpressionSearch::Free::operator()(pcre2_jit_stack* stack) const { pcre2_jit_stack_free(stack); }

}  // namespace tarnwick::qvx
