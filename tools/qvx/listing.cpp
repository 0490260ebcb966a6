#include "listing.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <utility>

#include "qvx/format/access_list.h"
#include "qvx/read/incomplete_text.h"
#include "report.h"

namespace tarnwick::qvx {

namespace {

char typeLetter(EntryType type) { return type == EntryType::directory ? 'd' : type == EntryType::link ? 'l' : '-'; }

std::string modeText(EntryType type, unsigned mode) {
    std::string text(1, typeLetter(type));
    for (int shift = 6; shift >= 0; shift -= 3) {
        const unsigned bits = mode >> shift;
        const bool special = mode & (0x200U << (shift / 3));
        const std::string_view letters = !special ? "-x" : shift == 0 ? "Tt" : "Ss";
        text += bits & 4 ? 'r' : '-';
        text += bits & 2 ? 'w' : '-';
        text += letters[bits & 1];
    }
    return text;
}

std::string hexText(const Digest& digest) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const auto byte : digest) text += {digits[byte >> 4], digits[byte & 15]};
    return text;
}

std::string extentsText(const std::vector<Extent>& extents) {
    JsonArray array;
    for (const Extent& extent : extents) {
        JsonObject object;
        object.number("offset", extent.offset);
        object.number("length", extent.length);
        array.add(object.finish());
    }
    return array.finish();
}

std::string attributesText(const EntryTail& tail) {
    std::string members;
    for (const auto& [name, value] : *tail.attributes)
        members += (members.empty() ? "" : ", ") + jsonString(name) + ": " + jsonString(value);
    return '{' + members + '}';
}

bool put(std::string_view text) { return std::fwrite(text.data(), 1, text.size(), stdout) == text.size(); }

}  // namespace

std::string listingLine(const IndexEntry& entry) {
    std::string line = modeText(entry.type, entry.mode) + (entry.incomplete ? "!" : "");
    line += ' ' + std::to_string(entry.userId) + '/' + std::to_string(entry.groupId);
    line += ' ' + std::to_string(entry.size) + ' ' + timeText(entry.modifiedSeconds);
    return line + ' ' + escapedName(entryName(entry.path));
}

IndexEntry indexEntry(const EntryHead& head, const EntryTail& tail, std::uint64_t length) {
    constexpr std::int64_t second = 1000000000;
    const std::int64_t modified = head.modified.value_or(0);
    IndexEntry entry;
    entry.type = head.type;
    entry.path = head.path;
    entry.mode = head.mode.value_or(0);
    entry.userId = head.userId.value_or(0);
    entry.groupId = head.groupId.value_or(0);
    entry.size = tail.content ? tail.content->size : length;
    entry.modifiedSeconds = modified / second - (modified % second < 0 ? 1 : 0);
    entry.incomplete = tail.unreadable.has_value();
    return entry;
}

std::string timeText(std::int64_t seconds) {
    const std::time_t time = seconds;
    std::tm parts{};
    char text[64];
    if (!gmtime_r(&time, &parts) || std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts) == 0)
        return '@' + std::to_string(seconds);
    return text;
}

const char* typeName(EntryType type) {
    return type == EntryType::directory ? "directory" : type == EntryType::link ? "link" : "file";
}

std::string octalText(unsigned mode) {
    char text[16];
    std::snprintf(text, sizeof text, "%04o", mode);
    return text;
}

void addIndexValues(JsonObject& object, const IndexEntry& entry) {
    object.text("type", typeName(entry.type));
    object.number("uid", std::optional(entry.userId));
    object.number("gid", std::optional(entry.groupId));
    object.text("mode", octalText(entry.mode));
    object.number("mtime", std::optional(entry.modifiedSeconds));
    object.number("size", entry.size);
    if (entry.incomplete) object.raw("incomplete", "true");
}

std::string indexJson(const std::string& archive, std::uint64_t number, const IndexEntry& entry) {
    JsonObject object;
    if (!archive.empty()) object.text("archive", archive);
    object.number("number", number);
    object.text("path", entry.path);
    addIndexValues(object, entry);
    return object.finish();
}

bool JsonSink::begin(const EntryHead& head) {
    head_ = head;
    linkTarget_.clear();
    return true;
}

bool JsonSink::data(Bytes bytes) {
    if (head_.type == EntryType::link) linkTarget_.append(bytes.begin(), bytes.end());
    return true;
}

bool JsonSink::finish(const EntryTail& tail, const ContentReader&) {
    JsonObject object;
    if (!archive_.empty()) object.text("archive", archive_);
    object.number("number", head_.number);
    object.text("type", typeName(head_.type));
    object.text("path", head_.path);
    object.number("uid", head_.userId);
    object.number("gid", head_.groupId);
    if (head_.mode) object.text("mode", octalText(*head_.mode));
    object.number("flags", head_.flags);
    object.number("mtime_ns", head_.modified);
    object.number("ctime_ns", head_.changed);
    object.number("btime_ns", head_.created);
    if (tail.totals) object.number("size", tail.totals->size);
    if (tail.totals) object.number("holes", tail.totals->holes);
    if (tail.content) object.number("size", tail.content->size);
    if (tail.digest) object.text("sha256", hexText(*tail.digest));
    if (head_.type == EntryType::link) object.text("target", linkTarget_);
    object.number("content_of", tail.contentOf);
    if (tail.hardLink) object.raw("hard_link", "true");
    if (tail.attributes) object.raw("xattrs", attributesText(tail));
    if (tail.accessLists) object.text("acl", accessListText(tail.accessLists->access));
    if (tail.accessLists) object.text("default_acl", accessListText(tail.accessLists->defaultList));
    if (tail.unreadable) object.raw("incomplete", "true");
    if (tail.unreadable) object.raw("unreadable", extentsText(*tail.unreadable));
    return lines_.add(static_cast<std::uint32_t>(head_.number), object.finish() + '\n');
}

Status JsonSink::finishLines() {
    static_cast<void>(lines_.finish());  // what fails to be written, the caller sees in the stream
    return lines_.status();
}

bool OutputSink::begin(const EntryHead& head) {
    path_ = head.path;
    if (head.type == EntryType::file) return true;
    report(escapedName(head.path) + " is not a regular file");
    return false;
}

bool OutputSink::data(Bytes bytes) { return put({reinterpret_cast<const char*>(bytes.data()), bytes.size()}); }

bool OutputSink::hole(std::uint64_t length) {
    static constexpr std::array<std::uint8_t, 65536> zeros{};
    for (std::uint64_t piece = 0; length > 0; length -= piece) {
        piece = std::min<std::uint64_t>(length, zeros.size());
        if (!data(Bytes(zeros).first(static_cast<std::size_t>(piece)))) return false;
    }
    return true;
}

bool OutputSink::finish(const EntryTail& tail, const ContentReader& content) {
    incomplete_ = incomplete_ || tail.unreadable;
    if (tail.unreadable) report(escapedName(path_) + ": " + incompleteText(EntryType::file, tail));
    const Status read = tail.contentOf ? content(*this) : Status();
    if (!read && !std::ferror(stdout)) report(escapedName(path_) + ": " + read.error().text);
    return static_cast<bool>(read);
}

bool CheckSink::begin(const EntryHead& head) {
    head_ = head;
    length_ = 0;
    return true;
}

bool CheckSink::hole(std::uint64_t length) {
    length_ += length;
    return true;
}

void CheckSink::startAgain() {
    known_ = std::exchange(finished_, 0);
    bytes_ = 0;
}

bool CheckSink::finish(const EntryTail& tail, const ContentReader&) {
    bytes_ += length_;
    if (++finished_ <= known_ || !tail.unreadable) return true;
    ++incomplete_;
    report(archive_ + ": " + escapedName(entryName(head_.path)) + ": " + incompleteText(head_.type, tail));
    return true;
}

}  // namespace tarnwick::qvx
