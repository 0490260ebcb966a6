// The search for lines: its parts, each with texts and data that are made to break it.
#include "qvx/content_search.h"

#include <gtest/gtest.h>
#include <lzma.h>
#include <zlib.h>
#include <zstd.h>

#include <random>

#include "qvx/decompressor.h"

using namespace tarnwick;
using namespace tarnwick::qvx;

namespace {

using Lines = std::vector<std::string>;

Lines split(std::string_view text) {
    Lines lines;
    for (; !text.empty(); text.remove_prefix(std::min(lines.back().size() + 1, text.size())))
        lines.emplace_back(text.substr(0, text.find('\n')));
    return lines;
}

Lines matching(const LineExpression& expression, std::string_view text) {
    Lines lines;
    LineSearch search(expression);
    for (auto line = *search.next(text, 0); line; line = *search.next(text, line->end + 1))
        lines.emplace_back(text.substr(line->begin, line->end - line->begin));
    return lines;
}

// Those that match when the expression sees nothing but the line.
Lines matchingAlone(const char* text, const Lines& lines) {
    Lines matching;
    ExpressionSearch search(*RegularExpression::compile(text, {.lines = true}));
    for (const auto& line : lines)
        if (*search.find(line)) matching.push_back(line);
    return matching;
}

// Texts of few characters, so that each expression often matches, and would often match across a line end.
TEST(LineSearch, FindsTheLinesThatMatchAlone) {
    const char* expressions[] = {"a",     "ab*",         "^a",   "b$",      "^$",        "",        "a.*b",
                                 "[ab]b", "(?:a|b)",     "a|^b", "\\ba",    "[^a]b",     "a\\s+b",  "a\\sb",
                                 "[]a]b", "[[:space:]]", "a*+b", "(?<!a)b", "(?!a)\\Ab", "b\\z",    "\\Ga",
                                 "a\\Kb", "(?s)a.b",     "\\Wb", "a\\nb",   "[\\n-c]b",  "(*LF)a$", "\\Da",
                                 "a{2,}", "(a)\\1",      "b\\Z", "\\x0a"};
    std::mt19937 random(1);
    for (int round = 0; round < 300; ++round) {
        std::string text(random() % 40, ' ');
        for (char& each : text) each = "ab \n\n"[random() % 5];
        for (const char* expression : expressions)
            EXPECT_EQ(matching(*LineExpression::compile(expression, false, false), text),
                      matchingAlone(expression, split(text)))
                << expression << " in " << text;
    }
}

TEST(LineSearch, SkipsOnlyTheLineThatTakesTooManySteps) {
    const std::string line(LineCutter::maxPiece, '7');
    for (const char* expression : {"(7+)+[xy]", "7+7+[xy]", "7.*7.*[xy]"}) {
        LineSearch search(*LineExpression::compile(expression, false, false));
        const auto text = line + "\n777x\n";
        EXPECT_TRUE((*search.next(text, 0))->skipped) << expression;
        EXPECT_FALSE((*search.next(text, line.size() + 1))->skipped) << expression;
    }
}

// A step that is too much for all lines at once may be right for one of them.
TEST(LineSearch, AllowsMoreStepsInShortLines) {
    std::string text;
    for (int i = 0; i < 2000; ++i) text += std::string(120, '7') + '\n';
    text += "777x\n";
    EXPECT_EQ(matching(*LineExpression::compile("7+7+[xy]", false, false), text), Lines{"777x"});
}

TEST(LineCutter, KeepsLinesWholeAndCountsThem) {
    std::string text, joined;
    for (int i = 1; i < 200000; ++i) text += std::to_string(i) + '\n';
    LineCutter cutter(
        [&](const std::string& piece, std::uint64_t line) {
            EXPECT_LE(piece.size(), LineCutter::maxPiece);
            EXPECT_TRUE(piece.starts_with(std::to_string(line) + '\n'));
            joined += piece;
        },
        true);
    for (int file = 0; file < 2; ++file, joined.clear()) {
        for (std::size_t at = 0; at < text.size(); at += 4999) cutter.add(std::string_view(text).substr(at, 4999));
        cutter.finish();
        EXPECT_EQ(joined, text);
    }
}

class Recorded : public OrderedJobs::Job {
public:
    Recorded(OrderedJobs& jobs, int number, std::vector<int>& ended) : jobs_(jobs), number_(number), ended_(ended) {}

    void run(unsigned) override {
        if (number_ % 3 == 0 && jobs_.waitForTurn(*this)) ended_.push_back(-number_);
    }
    void end() override { ended_.push_back(number_); }

private:
    OrderedJobs& jobs_;
    int number_;
    std::vector<int>& ended_;
};

TEST(OrderedJobs, EndInOrderAlsoThoseThatWaitForTheirTurn) {
    std::vector<int> ended, wanted;
    OrderedJobs jobs(7);
    for (int number = 1; number <= 3000; ++number) {
        if (number % 3 == 0) wanted.push_back(-number);
        wanted.push_back(number);
        jobs.add(std::make_shared<Recorded>(jobs, number, ended), number % 100 == 0 ? 9 : 1);
    }
    jobs.finish();
    EXPECT_EQ(ended, wanted);
}

TEST(OrderedJobs, PassOnWhatAJobThrows) {
    struct Failing : OrderedJobs::Job {
        void run(unsigned) override { throw std::bad_alloc(); }
        void end() override {}
    };
    std::vector<int> ended;
    OrderedJobs jobs(9);
    jobs.add(std::make_shared<Failing>(), 1);
    EXPECT_THROW(jobs.finish(), std::bad_alloc);
    EXPECT_THROW(jobs.add(std::make_shared<Recorded>(jobs, 3, ended), 1), std::bad_alloc);
}

std::string gzip(const std::string& text) {
    std::string data(text.size() + 1000, ' ');
    z_stream stream{};
    deflateInit2(&stream, 6, Z_DEFLATED, MAX_WBITS + 16, 8, Z_DEFAULT_STRATEGY);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef*>(data.data());
    stream.avail_out = static_cast<uInt>(data.size());
    deflate(&stream, Z_FINISH);
    deflateEnd(&stream);
    return data.substr(0, stream.total_out);
}

std::string xz(const std::string& text) {
    std::string data(text.size() + 1000, ' ');
    std::size_t length = 0;
    lzma_easy_buffer_encode(0, LZMA_CHECK_CRC64, nullptr, reinterpret_cast<const std::uint8_t*>(text.data()),
                            text.size(), reinterpret_cast<std::uint8_t*>(data.data()), &length, data.size());
    return data.substr(0, length);
}

std::string zstd(const std::string& text) {
    std::string data(ZSTD_compressBound(text.size()), ' ');
    return data.substr(0, ZSTD_compress(data.data(), data.size(), text.data(), text.size(), 3));
}

struct Decompressed {
    std::string text;
    std::string error;
};

Decompressed decompress(std::string_view data, std::size_t pieces) {
    Decompressed result;
    const auto decompressor = Decompressor::recognize(data);
    if (!decompressor) return {{}, "not recognized"};
    const auto visit = [&](std::string_view text) {
        result.text += text;
        return true;
    };
    Status done;
    for (; done && !data.empty(); data.remove_prefix(std::min(pieces, data.size())))
        done = decompressor->write(data.substr(0, pieces), visit);
    if (done) done = decompressor->finish(visit);
    if (!done) result.error = done.error().text;
    return result;
}

TEST(Decompressor, ReadsSeveralStreamsInPiecesAndReportsEveryCut) {
    const std::string text = "one line\nand another one\n";
    for (const auto& compress : {gzip, xz, zstd}) {
        const auto data = compress(text) + compress("") + compress(text);
        for (const std::size_t pieces : {1UL, 7UL, 1000UL}) {
            EXPECT_EQ(decompress(data, pieces).text, text + text);
            EXPECT_EQ(decompress(data, pieces).error, "");
        }
        for (std::size_t cut = 1; cut < compress(text).size(); ++cut)
            EXPECT_NE(decompress(std::string_view(data).substr(0, cut), 1000).error, "") << cut;
        for (std::size_t at = 0; at < data.size(); ++at) {
            auto changed = data;
            changed[at] = static_cast<char>(changed[at] ^ 0x55);
            static_cast<void>(decompress(changed, 3));  // any result, but no crash
        }
    }
    EXPECT_EQ(decompress(gzip(text) + std::string(100, '\0'), 1000).error, "");
}

TEST(Decompressor, EndsABomb) {
    const std::string text(100 << 20, ' ');
    for (const auto& compress : {gzip, xz, zstd}) {
        const auto result = decompress(compress(text), 65536);
        EXPECT_EQ(result.error, "it expands to more than 256 times its size; the rest is not searched");
        EXPECT_LE(result.text.size(), (64U << 20) + 65536);
    }
}

Bytes bytesOf(const std::string& text) { return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}; }

// Files of all sizes, compressed ones among them, and every fifth has the content of the one before.
std::string searchFiles(MatchStyle::Unit unit, std::string& wanted) {
    const auto expression = *LineExpression::compile("x", false, false);
    MatchOutput output("archive", {.unit = unit, .lineNumbers = true});
    ContentSearch search(
        {expression, true, true, unit}, [](std::string_view) { return true; }, output);
    std::mt19937 random(2);
    testing::internal::CaptureStdout();
    std::string text;
    for (std::uint64_t number = 0; number < 200; ++number) {
        const bool again = number % 5 == 4;
        if (!again) text.clear();
        for (std::size_t lines = again ? 0 : random() % (number % 7 == 0 ? 90000 : 50); lines > 0; --lines)
            text += random() % 3 == 0 ? "x\n" : "none\n";
        const auto data = number % 3 == 0 ? gzip(text) : text;
        const auto content = [&](EntrySink& sink) {
            EXPECT_NE(unit, MatchStyle::Unit::paths) << "read again for a path";
            return sink.data(bytesOf(data)) ? Status() : Error{"stopped"};
        };
        EntryHead head;
        head.number = number;
        head.path = std::to_string(number);
        search.begin(head);
        for (std::size_t at = 0; !again && at < data.size(); at += 70001) search.data(bytesOf(data.substr(at, 70001)));
        search.finish(again ? EntryTail{.contentOf = number - 1} : EntryTail(), content);
        std::size_t line = 0, count = 0;
        for (const auto& each : split(text)) {
            if (++line; each != "x") continue;
            if (unit == MatchStyle::Unit::lines) wanted += std::to_string(number) + ':' + std::to_string(line) + ":x\n";
            ++count;
        }
        if (count > 0 && unit == MatchStyle::Unit::counts)
            wanted += std::to_string(number) + ':' + std::to_string(count) + '\n';
        if (count > 0 && unit == MatchStyle::Unit::paths) wanted += std::to_string(number) + '\n';
    }
    search.finishAll();
    EXPECT_TRUE(output.found());
    return testing::internal::GetCapturedStdout();
}

TEST(ContentSearch, PrintsMatchesInTheOrderOfTheFiles) {
    for (const auto unit : {MatchStyle::Unit::lines, MatchStyle::Unit::counts, MatchStyle::Unit::paths}) {
        std::string wanted;
        const auto found = searchFiles(unit, wanted);
        EXPECT_TRUE(found == wanted) << found.size() << " bytes for " << wanted.size();
    }
}

}  // namespace
