// Prints what a search has found.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "interruption.h"
#include "line_search.h"

namespace tarnwick::qvx {

struct MatchStyle {
    enum class Unit { lines, counts, paths };
    Unit unit = Unit::lines;
    bool lineNumbers = false;
    bool json = false;
    bool quiet = false;         // print nothing, and stop at the first match
    bool namesArchive = false;  // in lines for people
    bool escapes = false;       // control characters, for a terminal
    bool colours = false;

    [[nodiscard]] bool countsLines() const { return unit == Unit::lines && (lineNumbers || json); }
};

// A file in the archive that is being searched.
struct SearchedFile {
    std::string path;
    std::uint64_t content = 0;       // number of the entry that has its content
    std::atomic<bool> done = false;  // nothing more of it needs to be searched

    // These are for MatchOutput.
    std::uint64_t lines = 0;
    bool binary = false;
    bool reported = false;
    bool skipReported = false;
};
using SearchedFilePointer = std::shared_ptr<SearchedFile>;

// What was found in a piece of a file.
struct Findings {
    SearchedFilePointer file;
    std::uint64_t lines = 0;   // count of those that match
    std::string text = {};     // as they are printed: those before the first zero byte
    bool binary = false;       // there is a zero byte
    bool binaryMatch = false;  // a match in the line of that byte, or after it
    bool skipped = false;      // the expression takes too long for a line
    bool last = false;         // nothing follows in the file
    std::optional<Error> fault = std::nullopt;

    [[nodiscard]] bool isEmpty() const { return lines == 0 && !binary && !skipped && !last && !fault; }
};

// For one archive. Any thread may call these functions, except add(), and what it changes may be asked only when it is
// not running.
class MatchOutput {
public:
    MatchOutput(std::string archive, const MatchStyle& style) : archive_(std::move(archive)), style_(style) {}

    // What each line about the file begins with.
    [[nodiscard]] std::string beginning(const SearchedFile& file) const;

    // Appends a matching line to `text`.
    void format(const std::string& beginning, std::uint64_t number, std::string_view line, LineSearch& search,
                std::string& text) const;

    // Prints the findings. Call it in the order of the files and their pieces.
    void add(const Findings& findings);

    // Reports that a part of the archive could not be searched.
    void addFault(const Error& error);

    // Ends the search, because the output cannot be written, the expression is too slow or a match is enough. So does a
    // signal.
    void stop() { stopped_ = true; }
    [[nodiscard]] bool isStopped() const { return stopped_ || interrupted(); }

    [[nodiscard]] bool found() const { return found_; }           // any match
    [[nodiscard]] bool failed() const { return failed_; }         // there was a fault
    [[nodiscard]] int writeError() const { return writeError_; }  // errno of the output; 0 for none
    [[nodiscard]] bool hasMatch(std::uint64_t content) const {
        return content < contentsWithMatch_.size() && contentsWithMatch_[content];
    }

    // The result is known of contents with a lower number only: the numbers in a damaged archive may be any.
    static constexpr std::uint64_t maxRemembered = std::uint64_t{1} << 26;

private:
    [[nodiscard]] std::string shown(std::string_view text) const;
    [[nodiscard]] std::string coloured(std::string_view line, LineSearch& search) const;
    void addLines(const Findings& findings);
    void reportBinary(SearchedFile& file);
    void printCount(const SearchedFile& file);
    void printPath(SearchedFile& file);
    void print(const std::string& text);

    std::string archive_;
    MatchStyle style_;
    std::atomic<bool> stopped_ = false;
    bool found_ = false;
    std::atomic<bool> failed_ = false;
    int writeError_ = 0;
    std::vector<bool> contentsWithMatch_;
};

}  // namespace tarnwick::qvx
