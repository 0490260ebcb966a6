#include "decompressor.h"

#include <lzma.h>
#include <zlib.h>
#include <zstd.h>
#include <zstd_errors.h>

#include <algorithm>
#include <new>

#include "base/handle.h"
#include "byte_size.h"

namespace tarnwick::qvx {

namespace {

constexpr std::uint64_t maxRatio = 256;
constexpr std::uint64_t freeText = 64 * mebibyte;  // before the ratio counts
constexpr std::uint64_t commonWindow = 8 * mebibyte;
constexpr std::size_t commonMemory = 10 * mebibyte;
constexpr std::size_t maxDecoderMemory = 66 * mebibyte;

// Most data needs little memory, so several can be decompressed at the same time. Data that says at its beginning that
// it needs more, or does not say it there, gets more.
std::size_t memoryFor(std::optional<std::uint64_t> window) {
    return window && *window <= commonWindow ? commonMemory : maxDecoderMemory;
}

Error damaged(const char* program) { return {std::string("the data of ") + program + " in it is damaged"}; }
Error tooLarge() { return {"more than 64 MiB of memory are needed to decompress it"}; }

unsigned byteAt(std::string_view bytes, std::size_t at) {
    return at < bytes.size() ? static_cast<unsigned char>(bytes[at]) : 0;
}

class GzipDecompressor : public Decompressor {
public:
    GzipDecompressor() {
        constexpr int gzipOnly = 16;
        if (inflateInit2(&stream_, MAX_WBITS + gzipOnly) != Z_OK) throw std::bad_alloc();
    }
    ~GzipDecompressor() override { inflateEnd(&stream_); }

    static bool recognizes(std::string_view begin) { return begin.starts_with("\x1f\x8b\x08"); }
    [[nodiscard]] std::size_t memory() const override { return 65536; }

protected:
    Result<std::size_t> step(std::string_view& data, bool, char* text, std::size_t size) override {
        if (ended_ && !restart(data)) return std::size_t{0};
        // The interface of zlib is not const. It does not write to the input.
        stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
        stream_.avail_in = static_cast<uInt>(data.size());
        stream_.next_out = reinterpret_cast<Bytef*>(text);
        stream_.avail_out = static_cast<uInt>(size);
        const int done = inflate(&stream_, Z_NO_FLUSH);
        data.remove_prefix(data.size() - stream_.avail_in);
        ended_ = done == Z_STREAM_END;
        if (done != Z_OK && done != Z_BUF_ERROR && !ended_) return damaged("gzip");
        return size - stream_.avail_out;
    }
    [[nodiscard]] bool atEnd() const override { return ended_; }

private:
    // Padding may follow the last stream.
    bool restart(std::string_view& data) {
        if (!data.starts_with('\x1f')) {
            data = {};
            return false;
        }
        ended_ = false;
        return inflateReset(&stream_) == Z_OK;
    }

    z_stream stream_{};
    bool ended_ = false;
};

class XzDecompressor : public Decompressor {
public:
    explicit XzDecompressor(std::string_view begin) : memory_(memoryFor(dictionarySize(begin))) {
        if (lzma_stream_decoder(&stream_, memory_, LZMA_CONCATENATED) != LZMA_OK) throw std::bad_alloc();
    }
    ~XzDecompressor() override { lzma_end(&stream_); }

    static bool recognizes(std::string_view begin) {
        return begin.starts_with(
            std::string_view("\xfd"
                             "7zXZ\0",
                             6));
    }
    [[nodiscard]] std::size_t memory() const override { return memory_; }

protected:
    Result<std::size_t> step(std::string_view& data, bool last, char* text, std::size_t size) override {
        if (ended_) return std::size_t{0};
        stream_.next_in = reinterpret_cast<const std::uint8_t*>(data.data());
        stream_.avail_in = data.size();
        stream_.next_out = reinterpret_cast<std::uint8_t*>(text);
        stream_.avail_out = size;
        const lzma_ret done = lzma_code(&stream_, last ? LZMA_FINISH : LZMA_RUN);
        data.remove_prefix(data.size() - stream_.avail_in);
        ended_ = done == LZMA_STREAM_END;
        if (done == LZMA_MEM_ERROR) throw std::bad_alloc();
        if (done == LZMA_MEMLIMIT_ERROR) return tooLarge();
        if (done != LZMA_OK && done != LZMA_BUF_ERROR && !ended_) return damaged("xz");
        return size - stream_.avail_out;
    }
    [[nodiscard]] bool atEnd() const override { return ended_; }

private:
    // In the header of the first block, if it has only the usual filter and no sizes.
    static std::optional<std::uint64_t> dictionarySize(std::string_view begin) {
        constexpr unsigned lzma2 = 0x21;
        if (byteAt(begin, 13) != 0 || byteAt(begin, 14) != lzma2 || byteAt(begin, 15) != 1) return std::nullopt;
        const unsigned bits = byteAt(begin, 16) & 63;
        return std::uint64_t{2 | (bits & 1)} << (bits / 2 + 11);
    }

    std::size_t memory_;
    lzma_stream stream_ = LZMA_STREAM_INIT;
    bool ended_ = false;
};

class ZstdDecompressor : public Decompressor {
public:
    explicit ZstdDecompressor(std::string_view begin)
        : memory_(memoryFor(windowSize(begin))), context_(ZSTD_createDCtx()) {
        if (!context_) throw std::bad_alloc();
        ZSTD_DCtx_setParameter(context_.get(), ZSTD_d_windowLogMax, memory_ == commonMemory ? 23 : 26);
    }

    static bool recognizes(std::string_view begin) { return begin.starts_with("\x28\xb5\x2f\xfd"); }
    [[nodiscard]] std::size_t memory() const override { return memory_; }

protected:
    Result<std::size_t> step(std::string_view& data, bool, char* text, std::size_t size) override {
        ZSTD_inBuffer in{data.data(), data.size(), 0};
        ZSTD_outBuffer out{text, size, 0};
        const std::size_t done = ZSTD_decompressStream(context_.get(), &out, &in);
        data.remove_prefix(in.pos);
        if (ZSTD_getErrorCode(done) == ZSTD_error_frameParameter_windowTooLarge) return tooLarge();
        if (ZSTD_getErrorCode(done) == ZSTD_error_memory_allocation) throw std::bad_alloc();
        if (ZSTD_isError(done)) return damaged("zstd");
        if (in.pos > 0 || out.pos > 0) ended_ = done == 0;
        return out.pos;
    }
    [[nodiscard]] bool atEnd() const override { return ended_; }

private:
    // The window of the first frame, or the size of its content if that is all in one segment.
    static std::optional<std::uint64_t> windowSize(std::string_view begin) {
        const unsigned descriptor = byteAt(begin, 4);
        const bool oneSegment = descriptor & 0x20;
        if (!oneSegment) {
            const std::uint64_t base = std::uint64_t{1024} << (byteAt(begin, 5) >> 3);
            return base + base / 8 * (byteAt(begin, 5) & 7);
        }
        static constexpr std::size_t dictionaryBytes[] = {0, 1, 2, 4};
        static constexpr std::size_t sizeBytes[] = {1, 2, 4, 8};
        const std::size_t sizeAt = 5 + dictionaryBytes[descriptor & 3];
        std::uint64_t size = 0;
        for (std::size_t i = sizeBytes[descriptor >> 6]; i-- > 0;) size = size << 8 | byteAt(begin, sizeAt + i);
        return size;
    }

    std::size_t memory_;
    std::unique_ptr<ZSTD_DCtx, FreeWith<ZSTD_freeDCtx>> context_;
    bool ended_ = false;
};

}  // namespace

std::unique_ptr<Decompressor> Decompressor::recognize(std::string_view begin) {
    if (GzipDecompressor::recognizes(begin)) return std::make_unique<GzipDecompressor>();
    if (XzDecompressor::recognizes(begin)) return std::make_unique<XzDecompressor>(begin);
    if (ZstdDecompressor::recognizes(begin)) return std::make_unique<ZstdDecompressor>(begin);
    return nullptr;
}

Status Decompressor::finish(const Visitor& visit) {
    if (Status done = decompress({}, true, visit); !done) return done;
    return atEnd() ? Status() : Error{"the compressed data in it ends early"};
}

Status Decompressor::decompress(std::string_view piece, bool last, const Visitor& visit) {
    for (;;) {
        const std::size_t before = piece.size();
        const auto length = step(piece, last, text_.data(), text_.size());
        if (!length) return length.error();
        read_ += before - piece.size();
        written_ += *length;
        if (written_ > std::max(freeText, maxRatio * read_))
            return Error{"it expands to more than 256 times its size; the rest is not searched"};
        if (*length > 0 && !visit({text_.data(), *length})) return {};
        if (*length == 0 && piece.size() == before) return {};
    }
}

}  // namespace tarnwick::qvx
