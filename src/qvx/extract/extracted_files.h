// The regular files extracted so far, for later entries with the same content.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "qvx/extract/destination.h"
#include "qvx/extract/file_content.h"

namespace tarnwick::qvx {

// A file is opened again by its path, and somebody may have replaced or changed it by then. So its content is used only
// if it has the digest of the entry.
class ExtractedFiles {
public:
    // `directory` is the destination.
    ExtractedFiles(const ExtractionRun& run, int directory) : run_(run), destination_(directory) {}

    void add(std::uint64_t number, std::string_view path);
    [[nodiscard]] std::optional<std::string_view> pathOf(std::uint64_t number) const;

    // Makes `file` a second name in `directory` for the file of entry `number`. False when that is not possible.
    bool link(std::uint64_t number, const EntryTail& tail, int directory, TemporaryFile& file);

    // Appends the content of the file of entry `number` to `file`. False when that is not possible; the content of
    // `file` is then incomplete or wrong.
    bool copy(std::uint64_t number, const EntryTail& tail, TemporaryFile& file);

    // Whether `name` in `directory` is the file that the entry describes, with its mode, time and content.
    [[nodiscard]] bool isInPlace(int directory, const std::string& name, const EntryHead& head,
                                 const EntryTail& tail) const;

private:
    struct PathPlace {  // in text_
        std::size_t begin = 0;
        std::size_t length = 0;
    };

    FileDescriptor open(std::uint64_t number);
    [[nodiscard]] bool hasContent(const FileDescriptor& file, const EntryTail& tail) const;

    const ExtractionRun& run_;
    Destination destination_;  // not the sink's, because openParent() would close its directory
    std::unordered_map<std::uint64_t, PathPlace> places_;  // by entry number
    std::string text_;                                     // all paths, one after another
};

}  // namespace tarnwick::qvx
