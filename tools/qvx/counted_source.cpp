#include "counted_source.h"

#include <utility>

#include "progress.h"

namespace tarnwick::qvx {

namespace {

class CountedSource : public ByteSource {
public:
    CountedSource(std::unique_ptr<ByteSource> source, std::string name)
        : source_(std::move(source)), name_(std::move(name)) {}

    [[nodiscard]] std::uint64_t size() const override { return source_->size(); }
    [[nodiscard]] Status read(std::uint64_t position, MutableBytes bytes) const override {
        Status done = source_->read(position, bytes);
        if (done) countBytes(bytes.size());
        return done;
    }
    void willRead(std::uint64_t begin, std::uint64_t end) const override { source_->willRead(begin, end); }
    void expect(std::uint64_t bytes) const override { expectBytes(name_, bytes); }
    [[nodiscard]] bool isStream() const override { return source_->isStream(); }
    [[nodiscard]] bool isFile() const override { return source_->isFile(); }
    [[nodiscard]] Status state() const override { return source_->state(); }

private:
    std::unique_ptr<ByteSource> source_;
    std::string name_;
};

}  // namespace

std::unique_ptr<ByteSource> countedSource(std::unique_ptr<ByteSource> source, std::string name) {
    beginProgress(name);
    return std::make_unique<CountedSource>(std::move(source), std::move(name));
}

}  // namespace tarnwick::qvx
