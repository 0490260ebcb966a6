// Reads back the content of extracted files.
#pragma once

#include "qvx/extract/temporary_file.h"
#include "qvx/format/content_digest.h"
#include "qvx/read/entry_reader.h"

namespace tarnwick::qvx {

// Opens the regular file `name` for reading. No descriptor if there is none, or something else.
FileDescriptor openRegularFile(int directory, const std::string& name);

// Computes the digest of a content and appends the content to a file, if there is one. Stops when the extraction is
// interrupted.
class DigestingSink : public EntrySink {
public:
    explicit DigestingSink(const ExtractionRun& run, TemporaryFile* file = nullptr) : run_(run), file_(file) {}

    bool begin(const EntryHead&) override { return true; }
    bool data(Bytes bytes) override;
    bool hole(std::uint64_t length) override;
    bool finish(const EntryTail&, const ContentReader&) override { return true; }
    void abandon() override {}

    Digest digest() { return digest_.finish(); }
    [[nodiscard]] const Status& written() const { return written_; }  // whether appending to the file failed

private:
    const ExtractionRun& run_;
    TemporaryFile* file_;
    ContentDigest digest_;
    Status written_;
};

// Passes the content of an open file to `sink`, which computes its digest, holes as holes. Whether all of it was passed
// and its digest is `expected`.
bool readFile(int file, DigestingSink& sink, const DigestCheck& expected);

}  // namespace tarnwick::qvx
