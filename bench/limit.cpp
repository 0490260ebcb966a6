// limit DIRECTORY OUTPUT: the CPU seconds of each thing that must be done to seal a directory, one after the other in
// one thread: reading its files, their SHA-256, Zstandard in blocks of 1 MiB, AES-256-GCM, writing. Prints five
// numbers.
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zstd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr std::size_t blockSize = 1048576;
constexpr std::size_t writePiece = 32768;  // larger ones take the kernel longer

struct Piece {
    std::size_t data = 0;  // bytes, and then a hole
    std::size_t hole = 0;
    bool last = false;  // of its file
};

double cpuSeconds() {
    struct rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) * 1e-6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

template <typename Step>
void timed(const Step& step) {
    const double begin = cpuSeconds();
    step();
    std::printf("%.4f ", cpuSeconds() - begin);
}

[[noreturn]] void die(const char* what) {
    std::perror(what);
    std::exit(1);
}

// Holes are skipped, as far as the file system knows of them.
std::size_t readFile(const std::string& path, std::uint8_t* to, std::vector<Piece>& pieces) {
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status {};
    if (file < 0 || ::fstat(file, &status) != 0) die(path.c_str());
    const bool sparse = status.st_blocks * 512 < status.st_size;
    std::size_t taken = 0;
    for (off_t at = 0; at < status.st_size;) {
        const off_t begin = sparse ? ::lseek(file, at, SEEK_DATA) : at;
        if (begin != at && !pieces.empty()) pieces.back().hole = std::size_t((begin < 0 ? status.st_size : begin) - at);
        if (begin < 0) break;
        const off_t end = sparse ? ::lseek(file, begin, SEEK_HOLE) : status.st_size;
        const ssize_t count = ::pread(file, to + taken, std::size_t(end - begin), begin);
        if (count <= 0) die(path.c_str());
        pieces.push_back({std::size_t(count), 0, false});
        taken += std::size_t(count);
        at = begin + count;
    }
    if (!pieces.empty()) pieces.back().last = true;
    ::close(file);
    return taken;
}

void digest(const std::vector<std::uint8_t>& all, const std::vector<Piece>& pieces) {
    static const std::vector<std::uint8_t> zeros(blockSize);
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    EVP_DigestInit_ex2(context, EVP_sha256(), nullptr);
    std::uint8_t out[32];
    std::size_t at = 0;
    for (const Piece& piece : pieces) {
        EVP_DigestUpdate(context, all.data() + at, piece.data);
        at += piece.data;
        for (std::size_t left = piece.hole; left > 0; left -= std::min(left, blockSize))
            EVP_DigestUpdate(context, zeros.data(), std::min(left, blockSize));
        if (!piece.last) continue;
        EVP_DigestFinal_ex(context, out, nullptr);
        EVP_DigestInit_ex2(context, nullptr, nullptr);
    }
    EVP_MD_CTX_free(context);
}

std::size_t compress(const std::vector<std::uint8_t>& all, std::size_t size, std::vector<std::uint8_t>& packed) {
    ZSTD_CCtx* context = ZSTD_createCCtx();
    std::size_t length = 0;
    for (std::size_t at = 0; at < size; at += blockSize)
        length += ZSTD_compressCCtx(context, packed.data() + length, packed.size() - length, all.data() + at,
                                    std::min(blockSize, size - at), 3);
    ZSTD_freeCCtx(context);
    return length;
}

void seal(std::vector<std::uint8_t>& packed, std::size_t length) {
    const std::uint8_t key[32] = {}, nonce[12] = {};
    EVP_CIPHER_CTX* cipher = EVP_CIPHER_CTX_new();
    EVP_CipherInit_ex(cipher, EVP_aes_256_gcm(), nullptr, key, nonce, 1);
    for (std::size_t at = 0; at < length; at += blockSize) {
        int done = 0;
        EVP_CipherUpdate(cipher, packed.data() + at, &done, packed.data() + at, int(std::min(blockSize, length - at)));
    }
    EVP_CIPHER_CTX_free(cipher);
}

void write(const char* path, const std::vector<std::uint8_t>& packed, std::size_t length) {
    const int file = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    for (std::size_t at = 0; at < length; at += writePiece)
        if (::write(file, packed.data() + at, std::min(writePiece, length - at)) < 0) die(path);
    ::close(file);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    std::vector<std::string> paths;
    std::size_t most = 0;
    for (const auto& entry : fs::recursive_directory_iterator(argv[1])) {
        if (!entry.is_regular_file()) continue;
        paths.push_back(entry.path());
        most += entry.file_size();
    }
    std::sort(paths.begin(), paths.end());
    std::vector<std::uint8_t> all(most, 1);  // filled, so that no step pays for new memory
    std::vector<std::uint8_t> packed(ZSTD_compressBound(most), 1);
    std::vector<Piece> pieces;
    std::size_t size = 0;
    std::size_t length = 0;
    timed([&] {
        for (const auto& path : paths) size += readFile(path, all.data() + size, pieces);
    });
    timed([&] { digest(all, pieces); });
    timed([&] { length = compress(all, size, packed); });
    timed([&] { seal(packed, length); });
    timed([&] { write(argv[2], packed, length); });
    std::puts("");
    return 0;
}
