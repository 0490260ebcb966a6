#include "content_search.h"

#include <algorithm>
#include <array>

#include "byte_size.h"
#include "data_queue.h"
#include "decompressor.h"

namespace tarnwick::qvx {

namespace {

constexpr std::size_t maxMemory = 70 * mebibyte;
constexpr std::size_t jobMemory = 2 * mebibyte;  // the text and its matches
constexpr std::size_t batchLimit = LineCutter::maxPiece;
constexpr std::size_t maxOutput = 262144;  // bytes of a job that are kept
constexpr std::size_t fileMemory = 512;    // besides its path
constexpr std::uint64_t maxHole = 4096;    // bytes of a hole that are searched

std::string_view viewOf(Bytes bytes) { return {reinterpret_cast<const char*>(bytes.data()), bytes.size()}; }

// Otherwise the reader of the archive could wait for a job that has ended.
struct ClosedAtEnd {
    DataQueue& queue;
    ~ClosedAtEnd() { queue.close(); }
};

}  // namespace

// Searches pieces of text, and keeps what it finds until its turn comes.
class ContentSearch::Job : public OrderedJobs::Job {
public:
    explicit Job(ContentSearch& search) : search_(search), output_(search.output_) {}

    void end() override {
        for (const auto& findings : findings_) output_.add(findings);
        findings_.clear();
        kept_ = 0;
    }

protected:
    void searchPiece(const Piece& piece, LineSearch& lines) {
        findings_.push_back({.file = piece.file, .last = piece.last});
        if (piece.file->done) return;
        switch (search_.options_.unit) {
            case MatchStyle::Unit::lines: searchText(piece, lines); break;
            case MatchStyle::Unit::counts: searchLines(piece, lines, [](const auto&) { return true; }); break;
            case MatchStyle::Unit::paths:
                searchLines(piece, lines, [&](const auto&) { return !(piece.file->done = true); });
                break;
        }
        if (findings_.back().isEmpty()) return findings_.pop_back();
        kept_ += fileMemory;
        limitKept();
    }

    void addFault(const SearchedFilePointer& file, const Error& error) {
        findings_.push_back({.file = file, .fault = error});
    }

    ContentSearch& search_;

private:
    void searchText(const Piece& piece, LineSearch& lines) {
        const auto zero = std::min(piece.text.find('\0'), piece.text.size());
        const bool binary = findings_.back().binary = zero < piece.text.size();
        printLines(piece, binary ? piece.text.rfind('\n', zero) + 1 : piece.text.size(), lines);
    }

    // The lines that begin before `textEnd` are printed; of the others, it is enough to know that there is one.
    void printLines(const Piece& piece, std::size_t textEnd, LineSearch& lines) {
        std::string beginning;
        const std::string_view text = piece.text;
        std::uint64_t number = piece.firstLine;
        std::size_t counted = 0;
        searchLines(piece, lines, [&](const LineSearch::Line& line) {
            findings_.back().binaryMatch = line.begin >= textEnd;
            if (findings_.back().binaryMatch) return false;
            if (beginning.empty()) beginning = output_.beginning(*piece.file);
            if (search_.options_.countsLines)
                for (; (counted = text.find('\n', counted)) < line.begin; ++counted) ++number;
            const std::size_t before = findings_.back().text.size();
            output_.format(beginning, number, text.substr(line.begin, line.end - line.begin), lines,
                           findings_.back().text);
            kept_ += findings_.back().text.size() - before;
            limitKept();
            return true;
        });
    }

    // Calls `visit` for each matching line until it returns false.
    void searchLines(const Piece& piece, LineSearch& lines, const auto& visit) {
        for (std::size_t from = 0; !output_.isStopped();) {
            const auto line = lines.next(piece.text, from);
            if (!line) return tooSlow(piece.file, line.error());
            if (!*line) return;
            from = (*line)->end + 1;
            if ((*line)->skipped) {
                findings_.back().skipped = true;
                continue;
            }
            ++findings_.back().lines;
            if (!visit(**line)) return;
        }
    }

    // The text is hostile, and the same will happen in other files: each would take as long.
    void tooSlow(const SearchedFilePointer& file, const Error& error) {
        addFault(file, {"the expression takes too long: " + error.text});
        output_.stop();
    }

    // Prints the matches so far when they need too much memory. A new object collects the next ones of the piece.
    void limitKept() {
        if (kept_ < maxOutput) return;
        const Findings next{
            .file = findings_.back().file, .binary = findings_.back().binary, .last = findings_.back().last};
        findings_.back().binary = false;
        findings_.back().last = false;
        if (search_.jobs_.waitForTurn(*this)) end();
        findings_.assign(1, next);
    }

    MatchOutput& output_;
    std::vector<Findings> findings_;
    std::size_t kept_ = 0;  // bytes of the findings
};

class ContentSearch::TextJob : public Job {
public:
    TextJob(ContentSearch& search, std::vector<Piece> batch) : Job(search), batch_(std::move(batch)) {}

    void run(unsigned worker) override {
        for (const Piece& piece : batch_) searchPiece(piece, search_.searches_[worker]);
        batch_.clear();
    }

private:
    std::vector<Piece> batch_;
};

class ContentSearch::CompressedJob : public Job {
public:
    CompressedJob(ContentSearch& search, SearchedFilePointer file, std::unique_ptr<Decompressor> decompressor)
        : Job(search), file_(std::move(file)), decompressor_(std::move(decompressor)) {}

    DataQueue& queue() { return queue_; }

    void run(unsigned worker) override {
        LineSearch& lines = search_.searches_[worker];
        LineCutter cutter(
            [&](std::string text, std::uint64_t line) {
                searchPiece({file_, std::move(text), line}, lines);
            },
            search_.options_.countsLines);
        const Status read = decompress(cutter);
        decompressor_.reset();
        cutter.finish();
        searchPiece({.file = file_, .text = {}, .last = true}, lines);
        if (!read && !file_->done) addFault(file_, read.error());
    }

private:
    Status decompress(LineCutter& cutter) {
        const ClosedAtEnd closed{queue_};
        const auto visit = [&](std::string_view text) {
            cutter.add(text);
            return !isDone();
        };
        while (const auto data = isDone() ? std::nullopt : queue_.pop())
            if (Status read = decompressor_->write(*data, visit); !read) return read;
        return isDone() ? Status() : decompressor_->finish(visit);
    }

    [[nodiscard]] bool isDone() const { return file_->done || search_.output_.isStopped(); }

    SearchedFilePointer file_;
    std::unique_ptr<Decompressor> decompressor_;
    DataQueue queue_;
};

ContentSearch::ContentSearch(const Options& options, Choice choice, MatchOutput& output)
    : options_(options),
      choice_(std::move(choice)),
      output_(output),
      cutter_(
          [this](std::string text, std::uint64_t line) {
              addPiece({file_, std::move(text), line});
          },
          options.countsLines),
      jobs_(maxMemory) {
    for (unsigned worker = 0; worker < OrderedJobs::workers(); ++worker) searches_.emplace_back(options.expression);
}

// The job of the current file would wait for data that does not come.
ContentSearch::~ContentSearch() {
    if (compressed_) compressed_->queue().end();
}

bool ContentSearch::begin(const EntryHead& head) {
    kind_ = head.type == EntryType::file && choice_(head.path) ? Kind::unknown : Kind::skipped;
    if (kind_ == Kind::skipped) return !output_.isStopped();
    file_ = std::make_shared<SearchedFile>();
    file_->path = head.path;
    file_->content = head.number;
    return !output_.isStopped();
}

bool ContentSearch::data(Bytes bytes) {
    if (kind_ != Kind::skipped && !file_->done) add(viewOf(bytes));
    return !output_.isStopped();
}

// A hole is as long as anybody likes. A few zero bytes do the same: the file is binary.
bool ContentSearch::hole(std::uint64_t length) {
    static constexpr std::array<std::uint8_t, maxHole> zeros{};
    return data(Bytes(zeros).first(static_cast<std::size_t>(std::min(length, maxHole))));
}

void ContentSearch::add(std::string_view bytes) {
    if (kind_ != Kind::unknown) return pass(bytes);
    if (begin_.empty() && bytes.size() >= Decompressor::beginning) return recognize(bytes);
    begin_ += bytes;
    if (begin_.size() >= Decompressor::beginning) recognize(std::exchange(begin_, {}));
}

void ContentSearch::recognize(std::string_view begin) {
    kind_ = Kind::text;
    if (auto decompressor = options_.decompresses ? Decompressor::recognize(begin) : nullptr) {
        pushBatch();
        kind_ = Kind::compressed;
        const std::size_t memory = decompressor->memory() + jobMemory;
        compressed_ = std::make_shared<CompressedJob>(*this, file_, std::move(decompressor));
        jobs_.add(compressed_, memory);
    }
    pass(begin);
}

void ContentSearch::pass(std::string_view bytes) {
    if (kind_ == Kind::compressed) return compressed_->queue().push(bytes);
    cutter_.add(bytes);
}

void ContentSearch::addPiece(Piece piece) {
    batchSize_ += piece.text.size() + piece.file->path.size() + fileMemory;
    batch_.push_back(std::move(piece));
    if (batchSize_ >= batchLimit) pushBatch();
}

void ContentSearch::pushBatch() {
    if (batch_.empty()) return;
    jobs_.add(std::make_shared<TextJob>(*this, std::exchange(batch_, {})), jobMemory);
    batchSize_ = 0;
}

bool ContentSearch::finish(const EntryTail& tail, const ContentReader& content) {
    if (kind_ == Kind::skipped) return !output_.isStopped();
    if (tail.contentOf) searchAgain(*tail.contentOf, content);
    const std::uint64_t number = file_->content;
    endFile();
    if (number >= searched_.size() && number < MatchOutput::maxRemembered) searched_.resize(number + 1);
    if (number < MatchOutput::maxRemembered) searched_[number] = true;
    return !output_.isStopped();
}

// Most contents have no match, and then those that are the same need not be read again. Nor when only the path counts:
// a small archive can have the same content under a million of them.
void ContentSearch::searchAgain(std::uint64_t content, const ContentReader& read) {
    file_->content = content;
    pushBatch();
    jobs_.finish();
    if (isKnownWithoutMatch(content)) return;
    if (options_.unit == MatchStyle::Unit::paths && output_.hasMatch(content))
        return output_.add({.file = file_, .lines = 1});
    const Status done = read(*this);
    if (!done && !output_.isStopped()) output_.addFault({done.error().text, 0, file_->path});
}

bool ContentSearch::isKnownWithoutMatch(std::uint64_t content) const {
    return content < searched_.size() && searched_[content] && !output_.hasMatch(content);
}

void ContentSearch::abandon() {
    if (kind_ != Kind::skipped) endFile();
}

void ContentSearch::endFile() {
    if (!begin_.empty()) recognize(std::exchange(begin_, {}));
    if (compressed_) compressed_->queue().end();
    compressed_.reset();
    cutter_.finish();
    if (kind_ == Kind::text && options_.unit == MatchStyle::Unit::counts)
        addPiece({.file = file_, .text = {}, .last = true});
    kind_ = Kind::skipped;
}

void ContentSearch::finishAll() {
    pushBatch();
    jobs_.finish();
}

}  // namespace tarnwick::qvx
