#include "platform/assets/asset_store.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>

#include "base/file_reading.h"

namespace tarnwick {

namespace fs = std::filesystem;

namespace {

using DigestContext = std::unique_ptr<EVP_MD_CTX, FreeWith<EVP_MD_CTX_free>>;

constexpr std::string_view stagingPrefix = ".staging.";
constexpr std::size_t versionsKept = 2;
constexpr int folderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

class Sha256 {
public:
    Sha256()
        : context_(EVP_MD_CTX_new()),
          good_(context_ && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1) {}

    void add(std::string_view bytes) {
        good_ = good_ && EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) == 1;
    }

    // The digest in hexadecimal; empty on failure.
    std::string finish() {
        std::array<unsigned char, 32> digest{};
        if (!good_ || EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr) != 1) return {};
        std::string text;
        for (const unsigned byte : digest) {
            text += "0123456789abcdef"[byte >> 4];
            text += "0123456789abcdef"[byte & 15];
        }
        return text;
    }

private:
    DigestContext context_;
    bool good_;
};

bool writeAll(int file, std::string_view bytes) {
    while (!bytes.empty()) {
        const auto count = ::write(file, bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR) return false;
        if (count > 0) bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

bool syncAndClose(FileDescriptor& file) {
    const bool synced = ::fsync(file.get()) == 0;
    return ::close(file.release()) == 0 && synced;
}

bool syncFolder(const fs::path& folder) {
    const FileDescriptor opened(::open(folder.c_str(), folderFlags));
    return opened && ::fsync(opened.get()) == 0;
}

// Syncs `folder` and every folder below it. The files were synced when they were written.
bool syncFolders(const fs::path& folder) {
    bool synced = syncFolder(folder);
    for (const auto& entry : fs::recursive_directory_iterator(folder))
        if (entry.is_directory()) synced = syncFolder(entry.path()) && synced;
    return synced;
}

// The content of a regular file of at most `limit` bytes; otherwise nothing.
std::optional<std::string> readFile(const fs::path& path, std::size_t limit) {
    const auto file = openRegularFile(path, O_NOFOLLOW);
    return file ? readToEnd(file, limit) : std::nullopt;
}

// The caller must hold the lock: all processes use the same temporary name.
bool replaceFile(const fs::path& path, std::string_view bytes) {
    const fs::path temporary = path.native() + ".new";
    FileDescriptor file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file) return false;
    const bool written = writeAll(file.get(), bytes);
    return syncAndClose(file) && written && ::rename(temporary.c_str(), path.c_str()) == 0 &&
           syncFolder(path.parent_path());
}

FileDescriptor lockStore(const fs::path& root) {
    const auto path = root / ".lock";
    FileDescriptor lock(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    while (lock && ::flock(lock.get(), LOCK_EX) != 0)
        if (errno != EINTR) return {};
    return lock;
}

enum class Folder { good, missing, linked, bad };

// The content of the folder decides what root does, so it must not be a link, not owned by another user, and not
// writable by others.
Folder inspectFolder(const fs::path& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return errno == ENOENT ? Folder::missing : Folder::bad;
    if (S_ISLNK(status.st_mode)) return Folder::linked;
    const bool ours = status.st_uid == 0 || status.st_uid == ::geteuid();
    return S_ISDIR(status.st_mode) && ours && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0 ? Folder::good : Folder::bad;
}

bool makeFolder(const fs::path& path) {
    if (::mkdir(path.c_str(), 0755) != 0) return errno == EEXIST;
    return syncFolder(path.parent_path());
}

AssetResult makeTrustedFolder(const fs::path& path) {
    if (!makeFolder(path)) return AssetResult::storeFailed;
    const auto folder = inspectFolder(path);
    if (folder == Folder::linked) return AssetResult::pathThroughLink;
    return folder == Folder::good ? AssetResult::success : AssetResult::storeFailed;
}

AssetResult makeRoot(const fs::path& root) {
    std::error_code error;
    fs::create_directories(root.parent_path(), error);
    return error ? AssetResult::storeFailed : makeTrustedFolder(root);
}

// Opens a file below an open folder without following a link in any component; with O_CREAT, missing folders are made.
FileDescriptor openBeneath(FileDescriptor folder, std::string_view path, int flags) {
    for (auto slash = path.find('/'); folder && slash != std::string_view::npos; slash = path.find('/')) {
        const std::string name(path.substr(0, slash));
        if ((flags & O_CREAT) != 0 && ::mkdirat(folder.get(), name.c_str(), 0755) != 0 && errno != EEXIST) return {};
        folder = FileDescriptor(::openat(folder.get(), name.c_str(), folderFlags));
        path.remove_prefix(slash + 1);
    }
    if (!folder) return {};
    return FileDescriptor(::openat(folder.get(), std::string(path).c_str(), flags | O_NOFOLLOW | O_CLOEXEC, 0644));
}

// With O_DIRECTORY, a link in place of a folder gives ENOTDIR. A file would too, but the paths of a catalog never
// collide.
AssetResult openFailure(int error) {
    return error == ELOOP || error == ENOTDIR || error == EEXIST ? AssetResult::pathThroughLink
                                                                 : AssetResult::storeFailed;
}

bool fileIsComplete(const fs::path& folder, const AssetFile& expected) {
    const auto file =
        openBeneath(FileDescriptor(::open(folder.c_str(), folderFlags)), expected.path, O_RDONLY | O_NONBLOCK);
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        static_cast<std::uint64_t>(status.st_size) != expected.size)
        return false;
    Sha256 digest;
    std::vector<char> buffer(1 << 16);
    for (;;) {
        const auto count = ::read(file.get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        if (count == 0) return digest.finish() == expected.sha256;
        digest.add({buffer.data(), static_cast<std::size_t>(count)});
    }
}

bool holdsAFile(const fs::path& folder) {
    std::error_code error;
    for (fs::recursive_directory_iterator each(folder, error), end; !error && each != end; each.increment(error))
        if (fs::is_regular_file(each->symlink_status(error))) return true;
    return false;
}

std::string nameOf(const AssetVersion& version) {
    return std::to_string(version.content) + '.' + std::to_string(version.mastered);
}

template <typename Number>
bool readNumber(std::string_view text, Number& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && number >= 0;
}

// Accepts only the form that this program writes: "5.12" is a version, "05.12" is not.
std::optional<AssetVersion> versionOf(const std::string& name) {
    const auto dot = name.find('.');
    AssetVersion version;
    if (dot == std::string::npos || !readNumber(std::string_view(name).substr(0, dot), version.content) ||
        !readNumber(std::string_view(name).substr(dot + 1), version.mastered) || nameOf(version) != name)
        return std::nullopt;
    return version;
}

// Removes what killed processes left; their locks ended with them. The caller must hold the lock of the store, because
// a new staging folder is not locked at first.
void removeLeftovers(const fs::path& typeFolder) {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(typeFolder, ignored)) {
        if (!entry.path().filename().native().starts_with(stagingPrefix)) continue;
        const FileDescriptor folder(::open(entry.path().c_str(), folderFlags));
        if (folder && ::flock(folder.get(), LOCK_EX | LOCK_NB) == 0) fs::remove_all(entry.path(), ignored);
    }
}

std::string encodeCatalog(const SignedCatalog& catalog) {
    return std::to_string(catalog.signature.size()) + '\n' + catalog.signature + catalog.bytes;
}

std::optional<SignedCatalog> decodeCatalog(std::string_view stored) {
    const auto lineEnd = stored.find('\n');
    std::size_t length = 0;
    if (lineEnd == std::string_view::npos || !readNumber(stored.substr(0, lineEnd), length)) return std::nullopt;
    stored.remove_prefix(lineEnd + 1);
    if (length > stored.size()) return std::nullopt;
    return SignedCatalog{std::string(stored.substr(length)), std::string(stored.substr(0, length))};
}

// Reads the last serial accepted; -1 when there is none. False when there is one that cannot be read, which must not
// count as none.
bool readLastSerial(const fs::path& path, std::int64_t& serial) {
    serial = -1;
    if (::access(path.c_str(), F_OK) != 0 && errno == ENOENT) return true;
    const auto text = readFile(path, 32);
    return text && text->ends_with('\n') && readNumber(std::string_view(*text).substr(0, text->size() - 1), serial);
}

}  // namespace

StagedAsset::StagedAsset(fs::path folder, FileDescriptor lock) : folder_(std::move(folder)), lock_(std::move(lock)) {}

StagedAsset::~StagedAsset() {
    std::error_code ignored;
    if (lock_) fs::remove_all(folder_, ignored);
}

AssetResult StagedAsset::addFile(const AssetFile& file, const std::function<AssetResult(const ByteSink&)>& transfer) {
    const auto content = folder_ / "content";
    auto out =
        openBeneath(FileDescriptor(::open(content.c_str(), folderFlags)), file.path, O_WRONLY | O_CREAT | O_EXCL);
    if (!out) return openFailure(errno);
    Sha256 digest;
    std::uint64_t size = 0;
    const auto received = transfer([&](std::string_view bytes) {
        size += bytes.size();
        if (size > file.size) return AssetResult::fileSizeWrong;
        digest.add(bytes);
        return writeAll(out.get(), bytes) ? AssetResult::success : AssetResult::storeFailed;
    });
    if (received != AssetResult::success) return received;
    if (size != file.size) return AssetResult::fileSizeWrong;
    if (digest.finish() != file.sha256) return AssetResult::fileDigestWrong;
    return syncAndClose(out) ? AssetResult::success : AssetResult::storeFailed;
}

AssetResult AssetStore::listInstalled(const std::string& type, std::vector<AssetVersion>& versions) const {
    if (!acceptableAssetType(type)) return AssetResult::storeFailed;
    for (const auto& folder : {root_, root_ / type}) {
        const auto state = inspectFolder(folder);
        if (state == Folder::missing) return AssetResult::success;
        if (state != Folder::good) return AssetResult::storeFailed;
    }
    std::error_code error;
    for (fs::directory_iterator each(root_ / type, error), end; !error && each != end; each.increment(error)) {
        const auto version = versionOf(each->path().filename());
        if (version && inspectFolder(each->path()) == Folder::good && holdsAFile(each->path()))
            versions.push_back(*version);
    }
    return error ? AssetResult::storeFailed : AssetResult::success;
}

bool AssetStore::holdsComplete(const Asset& asset) const {
    std::vector<AssetVersion> installed;
    if (listInstalled(asset.type, installed) != AssetResult::success ||
        std::find(installed.begin(), installed.end(), asset.version) == installed.end())
        return false;
    return std::all_of(asset.files.begin(), asset.files.end(),
                       [folder = folderOf(asset)](const AssetFile& file) { return fileIsComplete(folder, file); });
}

fs::path AssetStore::folderOf(const Asset& asset) const { return root_ / asset.type / nameOf(asset.version); }

std::optional<SignedCatalog> AssetStore::storedCatalog() const {
    const auto stored = readFile(root_ / ".catalog", maxCatalogSize + maxSignatureSize + 32);
    return stored ? decodeCatalog(*stored) : std::nullopt;
}

// The serial is written first: after a kill between the two writes, the old catalog is still used, and no older one is
// accepted.
AssetResult AssetStore::keepCatalog(const SignedCatalog& received, std::int64_t serial) const {
    const auto made = makeRoot(root_);
    if (made != AssetResult::success) return made;
    const auto lock = lockStore(root_);
    std::int64_t last = -1;
    if (!lock || !readLastSerial(root_ / ".serial", last)) return AssetResult::storeFailed;
    if (serial < last) return AssetResult::serialTooLow;
    const bool kept = replaceFile(root_ / ".serial", std::to_string(serial) + '\n') &&
                      replaceFile(root_ / ".catalog", encodeCatalog(received));
    return kept ? AssetResult::success : AssetResult::storeFailed;
}

AssetResult AssetStore::stage(const std::string& type, std::optional<StagedAsset>& staged) const {
    if (!acceptableAssetType(type)) return AssetResult::storeFailed;
    for (const auto made : {makeRoot(root_), makeTrustedFolder(root_ / type)})
        if (made != AssetResult::success) return made;
    const auto lock = lockStore(root_);
    if (!lock) return AssetResult::storeFailed;
    removeLeftovers(root_ / type);
    std::string folder = root_ / type / (std::string(stagingPrefix) + "XXXXXX");
    if (::mkdtemp(folder.data()) == nullptr) return AssetResult::storeFailed;
    FileDescriptor owned(::open(folder.c_str(), folderFlags));
    if (!owned || ::flock(owned.get(), LOCK_EX | LOCK_NB) != 0) return AssetResult::storeFailed;
    staged.emplace(folder, std::move(owned));
    return makeFolder(fs::path(folder) / "content") ? AssetResult::success : AssetResult::storeFailed;
}

AssetResult AssetStore::install(const Asset& asset, StagedAsset& staged) const {
    const auto lock = lockStore(root_);
    std::vector<AssetVersion> installed;
    if (!lock || listInstalled(asset.type, installed) != AssetResult::success) return AssetResult::storeFailed;
    std::sort(installed.begin(), installed.end());
    if (!installed.empty() && installed.back() > asset.version) return AssetResult::versionTooLow;
    if (holdsComplete(asset)) return AssetResult::success;

    // An incomplete folder with this name is removed first. It is renamed before that, so that a partly removed folder
    // never has the name of a version.
    const auto place = folderOf(asset);
    std::error_code ignored;
    fs::rename(place, staged.folder_ / "replaced", ignored);
    const auto content = staged.folder_ / "content";
    if (!syncFolders(content) || ::rename(content.c_str(), place.c_str()) != 0 || !syncFolder(place.parent_path()))
        return AssetResult::storeFailed;
    std::erase(installed, asset.version);
    for (std::size_t oldest = 0; oldest + versionsKept <= installed.size(); ++oldest) {
        const auto name = nameOf(installed[oldest]);
        fs::rename(root_ / asset.type / name, staged.folder_ / name, ignored);
    }
    return AssetResult::success;
}

}  // namespace tarnwick
