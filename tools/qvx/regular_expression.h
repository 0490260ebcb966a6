// Regular expressions (PCRE2) over bytes, for names and contents in whatever encoding.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/error.h"

struct pcre2_real_code_8;
struct pcre2_real_match_context_8;
struct pcre2_real_match_data_8;
struct pcre2_real_jit_stack_8;

namespace tarnwick::qvx {

// A compiled expression. Several threads may use it at the same time, each with its own search object.
class RegularExpression {
public:
    struct Options {
        bool literal = false;     // no character is special
        bool ignoreCase = false;  // of the letters of ASCII
        // ^ and $ match at each line, and the dot does not match a line end. Otherwise the text is one piece, as a path
        // is. An expression can match across a line end all the same: \s and [^x] contain it.
        bool lines = false;
    };

    // The error says what is wrong with the expression, and where.
    static Result<RegularExpression> compile(std::string_view expression, const Options& options);

private:
    friend class ExpressionSearch;
    explicit RegularExpression(std::shared_ptr<const pcre2_real_code_8> code) : code_(std::move(code)) {}

    std::shared_ptr<const pcre2_real_code_8> code_;
};

// Searches texts for an expression. For one thread at a time. Memory: at most 33 MiB, and mostly a few KiB.
class ExpressionSearch {
public:
    struct Match {
        std::size_t begin = 0;
        std::size_t end = 0;  // one after the last byte; may be `begin`
    };

    // Throws std::bad_alloc.
    explicit ExpressionSearch(RegularExpression expression);

    // The first match at or after `from`, none if there is none. Fails when the search would need too many steps or too
    // much memory: a hostile text can make an expression like (a+)+b take forever.
    Result<std::optional<Match>> find(std::string_view text, std::size_t from = 0);

private:
    struct Free {
        void operator()(pcre2_real_match_context_8* context) const;
        void operator()(pcre2_real_match_data_8* data) const;
        void operator()(pcre2_real_jit_stack_8* stack) const;
    };

    RegularExpression expression_;
    std::unique_ptr<pcre2_real_jit_stack_8, Free> stack_;
    std::unique_ptr<pcre2_real_match_context_8, Free> context_;
    std::unique_ptr<pcre2_real_match_data_8, Free> data_;
};

}  // namespace tarnwick::qvx
