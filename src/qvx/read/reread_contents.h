// Reads contents of entries a second time, for the entries that refer to them.
#pragma once

#include "qvx/format/index_codec.h"
#include "qvx/read/block_reader.h"
#include "qvx/read/entry_reader.h"

namespace tarnwick::qvx {

// An archive may refer to one content any number of times, and a content of few bytes may extend over many blocks. So
// the work is limited in proportion to the blocks of the archive and the bytes that are delivered.
class RereadContents {
public:
    // All arguments must outlive this object.
    RereadContents(const ArchiveFile& file, const MessageKeys& keys, const BlockMap& map)
        : map_(map), blocks_(file, keys, map) {}
    RereadContents(const RereadContents&) = delete;
    RereadContents& operator=(const RereadContents&) = delete;

    // Passes the content of entry `number` at `place` to `sink`, by data() and hole() only. Fails when that is not a
    // file that others may refer to, when it cannot be read or is not what `expected` says, when the sink stops it, and
    // when the archive has made this object do too much work.
    Status read(std::uint64_t number, const RecordPlace& place, const std::optional<ContentCheck>& expected,
                EntrySink& sink);

private:
    // Passes only the content of one entry to the sink of another entry, and counts its bytes.
    class Forwarder : public EntrySink {
    public:
        void forwardTo(EntrySink* sink) { sink_ = sink; }
        [[nodiscard]] std::uint64_t delivered() const { return delivered_; }

        bool begin(const EntryHead&) override { return true; }
        bool data(Bytes bytes) override {
            delivered_ += bytes.size();
            return sink_->data(bytes);
        }
        bool hole(std::uint64_t length) override { return sink_->hole(length); }
        bool finish(const EntryTail&, const ContentReader&) override { return true; }
        void abandon() override {}

    private:
        EntrySink* sink_ = nullptr;
        std::uint64_t delivered_ = 0;  // bytes of data
    };

    Status readEntry(const RecordPlace& place);
    [[nodiscard]] bool isWithinLimit() const;

    const BlockMap& map_;
    RandomBlocks blocks_;
    Forwarder forwarder_;
    // One for all contents: it limits the zeros whose digest is computed.
    EntryReader entry_{forwarder_, EntryReader::Scope::repeatedEntries};
    std::uint64_t reads_ = 0;
    std::uint64_t scanned_ = 0;  // bytes of records
};

}  // namespace tarnwick::qvx
