// Copies the content of extracted files.
#pragma once

#include "qvx/extract/temporary_file.h"
#include "qvx/format/content_digest.h"
#include "qvx/read/entry_reader.h"

namespace tarnwick::qvx {

// Appends a content to a file. Stops when the extraction is interrupted.
class FileSink : public EntrySink {
public:
    FileSink(const ExtractionRun& run, TemporaryFile& file) : run_(run), file_(file) {}

    bool begin(const EntryHead&) override { return true; }
    bool data(Bytes bytes) override;
    bool hole(std::uint64_t length) override;
    bool finish(const EntryTail&, const ContentReader&) override { return true; }
    void abandon() override {}

    [[nodiscard]] const Status& written() const { return written_; }  // whether appending to the file failed

private:
    const ExtractionRun& run_;
    TemporaryFile& file_;
    Status written_;
};

// Computes the digest too. Stops when all holes that were added to `zeros` are too long to be digested.
class DigestingSink : public FileSink {
public:
    DigestingSink(const ExtractionRun& run, TemporaryFile& file, DigestedZeros& zeros)
        : FileSink(run, file), zeros_(zeros) {}

    bool data(Bytes bytes) override;
    bool hole(std::uint64_t length) override;

    Digest digest() { return digest_.finish(); }

private:
    DigestedZeros& zeros_;
    ContentDigest digest_;
};

// Passes the content of an open file to `sink`, holes as holes. Whether all of it was passed and its digest is
// `expected`.
bool readFile(int file, DigestingSink& sink, const DigestCheck& expected);

}  // namespace tarnwick::qvx
