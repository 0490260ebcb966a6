// Searches the contents of an archive on all cores.
#pragma once

#include <functional>

#include "line_cutter.h"
#include "match_output.h"
#include "ordered_jobs.h"
#include "qvx/read/entry_reader.h"

namespace tarnwick::qvx {

// Cuts contents into batches of lines, which jobs search in parallel. A file that is compressed is one job, which
// decompresses it, too. The findings are printed in the order of the contents.
//
// Memory: 70 MiB at most, and mostly a few MiB. One decompressor may need almost all of it.
class ContentSearch : public EntrySink {
public:
    // Whether to search the file.
    using Choice = std::function<bool(std::string_view path)>;

    struct Options {
        const LineExpression& expression;
        bool decompresses = true;
        bool countsLines = false;
        MatchStyle::Unit unit = MatchStyle::Unit::lines;
    };

    // `output` and what the options refer to must outlive the search.
    ContentSearch(const Options& options, Choice choice, MatchOutput& output);
    ~ContentSearch() override;

    bool begin(const EntryHead& head) override;
    bool data(Bytes bytes) override;
    bool hole(std::uint64_t length) override;
    bool finish(const EntryTail& tail, const ContentReader& content) override;
    void abandon() override;

    // Waits until everything is searched.
    void finishAll();

private:
    enum class Kind { skipped, unknown, text, compressed };  // what the current file is

    struct Piece {
        SearchedFilePointer file;
        std::string text;
        std::uint64_t firstLine = 1;
        bool last = false;
    };

    class Job;
    class TextJob;
    class CompressedJob;

    void add(std::string_view bytes);
    void recognize(std::string_view begin);
    void pass(std::string_view bytes);
    void addPiece(Piece piece);
    void pushBatch();
    void searchAgain(std::uint64_t content, const ContentReader& read);
    void endFile();
    [[nodiscard]] bool isKnownWithoutMatch(std::uint64_t content) const;

    Options options_;
    Choice choice_;
    MatchOutput& output_;
    Kind kind_ = Kind::skipped;
    SearchedFilePointer file_;
    std::string begin_;  // of a file whose kind is not known yet
    LineCutter cutter_;
    std::vector<Piece> batch_;
    std::size_t batchSize_ = 0;   // bytes
    std::vector<bool> searched_;  // by the number of the entry with the content
    std::vector<LineSearch> searches_;
    std::shared_ptr<CompressedJob> compressed_;  // of the current file
    OrderedJobs jobs_;
};

}  // namespace tarnwick::qvx
