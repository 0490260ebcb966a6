#include "match_output.h"

#include <cerrno>
#include <cstdio>
#include <utility>

#include "base/json_string.h"
#include "progress.h"
#include "report.h"

namespace tarnwick::qvx {

namespace {

constexpr std::string_view matchBegin = "\x1b[1;31m";
constexpr std::string_view matchEnd = "\x1b[0m";

}  // namespace

std::string MatchOutput::beginning(const SearchedFile& file) const {
    if (!style_.json) return (style_.namesArchive ? escapedName(archive_) + ':' : "") + escapedName(file.path);
    return "{\"archive\": " + jsonString(archive_) + ", \"path\": " + jsonString(file.path);
}

void MatchOutput::format(const std::string& beginning, std::uint64_t number, std::string_view line, LineSearch& search,
                         std::string& text) const {
    text += beginning;
    if (style_.json) {
        text += ", \"line\": " + std::to_string(number) + ", \"text\": " + jsonString(line) + '}';
    } else {
        text += ':';
        if (style_.lineNumbers) text += std::to_string(number) + ':';
        if (style_.colours) {
            text += coloured(line, search);
        } else if (style_.escapes) {
            text += shown(line);
        } else {
            text += line;
        }
    }
    text += '\n';
}

// Tabs, and a carriage return at the end of a line, do no harm.
std::string MatchOutput::shown(std::string_view text) const {
    std::string result;
    const bool hasReturn = text.ends_with('\r');
    if (hasReturn) text.remove_suffix(1);
    for (std::size_t tab = 0; tab != std::string_view::npos;
         text.remove_prefix(tab == std::string_view::npos ? 0 : tab + 1)) {
        tab = text.find('\t');
        result += visibleText(text.substr(0, tab));
        if (tab != std::string_view::npos) result += '\t';
    }
    return hasReturn ? result + '\r' : result;
}

std::string MatchOutput::coloured(std::string_view line, LineSearch& search) const {
    std::string result;
    std::size_t from = 0;
    while (const auto match = search.matchIn(line, from)) {
        result += shown(line.substr(from, match->begin - from));
        result += matchBegin;
        result += shown(line.substr(match->begin, match->end - match->begin));
        result += matchEnd;
        from = match->end;
    }
    return result + shown(line.substr(from));
}

void MatchOutput::add(const Findings& findings) {
    SearchedFile& file = *findings.file;
    file.lines += findings.lines;
    if (findings.lines > 0) {
        found_ = true;
        if (file.content >= contentsWithMatch_.size() && file.content < maxRemembered)
            contentsWithMatch_.resize(file.content + 1);
        if (file.content < maxRemembered) contentsWithMatch_[file.content] = true;
    }
    switch (style_.unit) {
        case MatchStyle::Unit::lines: addLines(findings); break;
        case MatchStyle::Unit::counts:
            if (findings.last && file.lines > 0) printCount(file);
            break;
        case MatchStyle::Unit::paths:
            if (file.lines > 0 && !file.reported) printPath(file);
            break;
    }
    if (findings.skipped && !std::exchange(file.skipReported, true))
        addFault({"lines for which the expression takes too long are not searched", 0, file.path});
    if (findings.fault) addFault({findings.fault->text, 0, file.path});
}

void MatchOutput::addLines(const Findings& findings) {
    SearchedFile& file = *findings.file;
    if (!file.binary) print(findings.text);
    if (findings.lines > 0 && (file.binary || findings.binaryMatch) && !file.reported) reportBinary(file);
    file.binary = file.binary || findings.binary;
}

void MatchOutput::reportBinary(SearchedFile& file) {
    file.reported = true;
    file.done = true;
    if (style_.json) return print(beginning(file) + ", \"binary\": true}\n");
    report(beginning(file) + ": binary file matches");
}

void MatchOutput::printCount(const SearchedFile& file) {
    const auto count = std::to_string(file.lines);
    print(beginning(file) + (style_.json ? ", \"count\": " + count + '}' : ':' + count) + '\n');
}

void MatchOutput::printPath(SearchedFile& file) {
    file.reported = true;
    print(beginning(file) + (style_.json ? "}\n" : "\n"));
}

void MatchOutput::print(const std::string& text) {
    if (text.empty()) return;
    if (style_.quiet) return stop();
    std::optional<ProgressPause> pause;
    if (style_.escapes) pause.emplace();  // the progress may be on the same terminal
    if (std::fwrite(text.data(), 1, text.size(), stdout) == text.size()) return;
    writeError_ = errno;
    stop();
}

void MatchOutput::addFault(const Error& error) {
    failed_ = true;
    report(escapedName(archive_) + ": " + (error.subject.empty() ? "" : escapedName(error.subject) + ": ") +
           error.text);
}

}  // namespace tarnwick::qvx
