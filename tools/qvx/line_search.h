// Finds the lines of a text that match an expression.
#pragma once

#include <chrono>

#include "regular_expression.h"

namespace tarnwick::qvx {

// An expression that is to be matched by single lines.
struct LineExpression {
    RegularExpression expression;
    bool staysInLine = false;  // no match can contain a line end, so that many lines can be searched at once

    static Result<LineExpression> compile(std::string_view expression, bool literal, bool ignoreCase);
};

// For one thread at a time.
class LineSearch {
public:
    struct Line {
        std::size_t begin = 0;
        std::size_t end = 0;   // without the line end
        bool skipped = false;  // the expression takes too many steps: it may match or not
    };

    explicit LineSearch(const LineExpression& expression)
        : search_(expression.expression), staysInLine_(expression.staysInLine) {}

    // The first line that matches or is skipped, and begins at or after `from`, which is the beginning of a line or the
    // end of the text. Fails when the whole search takes seconds for each MiB: a hostile text can make an expression do
    // so.
    Result<std::optional<Line>> next(std::string_view text, std::size_t from);

    // The first match in a line, at or after `from`; none for an empty one.
    std::optional<ExpressionSearch::Match> matchIn(std::string_view line, std::size_t from);

private:
    std::optional<Line> find(std::string_view text, std::size_t from);
    Result<std::optional<Line>> nextOfAll(std::string_view text, std::size_t from);
    std::optional<Line> nextAlone(std::string_view text, std::size_t from);
    [[nodiscard]] bool isTooSlow() const;

    ExpressionSearch search_;
    bool staysInLine_;
    std::chrono::nanoseconds time_{};  // of all searches
    std::uint64_t searched_ = 0;       // bytes
};

}  // namespace tarnwick::qvx
