// Chooses entries where all of them are read.
#pragma once

#include "qvx/read/deferred_entries.h"
#include "qvx/read/entry_reader.h"

namespace tarnwick::qvx {

// Passes the chosen entries to another sink. The content of a chosen entry may be in one that is not; whether it can be
// read depends on the reader.
class ChoiceSink : public EntrySink {
public:
    // Both must outlive this object.
    ChoiceSink(const EntryChoice& choice, EntrySink& sink) : choice_(choice), sink_(sink) {}

    bool begin(const EntryHead& head) override {
        chosen_ = choice_(head.number, head.path);
        return !chosen_ || sink_.begin(head);
    }
    bool data(Bytes bytes) override { return !chosen_ || sink_.data(bytes); }
    bool hole(std::uint64_t length) override { return !chosen_ || sink_.hole(length); }
    bool finish(const EntryTail& tail, const ContentReader& content) override {
        return !chosen_ || sink_.finish(tail, content);
    }
    void abandon() override {
        if (chosen_) sink_.abandon();
    }

private:
    const EntryChoice& choice_;
    EntrySink& sink_;
    bool chosen_ = false;  // the current entry
};

}  // namespace tarnwick::qvx
