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
constexpr std::size_t maxVersions = 2;
constexpr int folderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

class Sha256 {
public:
    Sha256()
        : context_(EVP_MD_CTX_new()), ok_(context_ && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1) {}

    void add(std::string_view bytes) { ok_ = ok_ && EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) == 1; }

    // The digest in hexadecimal; empty on failure.
    std::string finish() {
        std::array<unsigned char, 32> digest{};
        if (!ok_ || EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr) != 1) return {};
        std::string text;
        for (const unsigned byte : digest) {
            text += "0123456789abcdef"[byte >> 4];
            text += "0123456789abcdef"[byte & 15];
        }
        return text;
    }

private:
    DigestContext context_;
    bool ok_;
};

AssetStatus statusOf(bool succeeded) {
    if (!succeeded) return AssetError::storeFailed;
    return {};
}

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
    // May throw if the folder is changed meanwhile; the service turns that into an error.
    for (const auto& entry : fs::recursive_directory_iterator(folder))
        if (entry.is_directory()) synced = syncFolder(entry.path()) && synced;
    return synced;
}

Result<std::string> readFile(const fs::path& path, std::size_t limit) {
    const auto file = openRegularFile(path, O_NOFOLLOW);
    return file ? readToEnd(*file, limit) : file.error();
}

// The caller must have locked the store: all processes use the same temporary name.
bool replaceFile(const fs::path& path, std::string_view bytes) {
    const fs::path temporary = path.native() + ".new";
    FileDescriptor file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file) return false;
    const bool written = writeAll(file.get(), bytes);
    return syncAndClose(file) && written && ::rename(temporary.c_str(), path.c_str()) == 0 &&
           syncFolder(path.parent_path());
}

// A process that is killed releases its lock, so no lock file can be left that blocks the others.
FileDescriptor lockStore(const fs::path& root) {
    const auto path = root / ".lock";
    FileDescriptor lock(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    while (lock && ::flock(lock.get(), LOCK_EX) != 0)
        if (errno != EINTR) return {};
    return lock;
}

enum class Folder { trusted, untrusted, linked, missing };

// The content of the folder decides what root does, so it must not be a link, not owned by another user, and not
// writable by others.
Folder inspectFolder(const fs::path& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return errno == ENOENT ? Folder::missing : Folder::untrusted;
    if (S_ISLNK(status.st_mode)) return Folder::linked;
    const bool owned = status.st_uid == 0 || status.st_uid == ::geteuid();
    return S_ISDIR(status.st_mode) && owned && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0 ? Folder::trusted
                                                                                           : Folder::untrusted;
}

bool makeFolder(const fs::path& path) {
    if (::mkdir(path.c_str(), 0755) != 0) return errno == EEXIST;
    // The name of a new folder is on disk only when its parent is synced.
    return syncFolder(path.parent_path());
}

AssetStatus makeTrustedFolder(const fs::path& path) {
    if (!makeFolder(path)) return AssetError::storeFailed;
    const auto folder = inspectFolder(path);
    if (folder == Folder::linked) return AssetError::pathThroughLink;
    if (folder != Folder::trusted) return AssetError::storeFailed;
    return {};
}

AssetStatus makeRoot(const fs::path& root) {
    std::error_code error;
    fs::create_directories(root.parent_path(), error);
    if (error) return AssetError::storeFailed;
    return makeTrustedFolder(root);
}

// With O_DIRECTORY, a link in place of a folder gives ENOTDIR. So would a file, but the parser refuses catalogs in
// which a path is both a file and a folder.
AssetError openError(int error) {
    return error == ELOOP || error == ENOTDIR || error == EEXIST ? AssetError::pathThroughLink
                                                                 : AssetError::storeFailed;
}

AssetResult<FileDescriptor> openedOrError(int descriptor) {
    if (descriptor < 0) return openError(errno);
    return FileDescriptor(descriptor);
}

// Opens a file below `root` without following a link in any component; with O_CREAT, missing folders are made.
AssetResult<FileDescriptor> openBelow(const fs::path& root, std::string_view path, int flags) {
    auto folder = openedOrError(::open(root.c_str(), folderFlags));
    for (auto slash = path.find('/'); folder && slash != std::string_view::npos; slash = path.find('/')) {
        const std::string name(path.substr(0, slash));
        if ((flags & O_CREAT) != 0 && ::mkdirat(folder->get(), name.c_str(), 0755) != 0 && errno != EEXIST)
            return openError(errno);
        folder = openedOrError(::openat(folder->get(), name.c_str(), folderFlags));
        path.remove_prefix(slash + 1);
    }
    if (!folder) return folder;
    return openedOrError(::openat(folder->get(), std::string(path).c_str(), flags | O_NOFOLLOW | O_CLOEXEC, 0644));
}

bool fileIsComplete(const fs::path& folder, const AssetFile& expected) {
    // O_NONBLOCK: a FIFO must not block. The check of the kind follows.
    const auto file = openBelow(folder, expected.path, O_RDONLY | O_NONBLOCK);
    struct stat status {};
    if (!file || ::fstat(file->get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        static_cast<std::uint64_t>(status.st_size) != expected.size)
        return false;
    Sha256 digest;
    std::vector<char> buffer(1 << 16);
    for (;;) {
        const auto count = ::read(file->get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        if (count == 0) return digest.finish() == expected.sha256;
        digest.add({buffer.data(), static_cast<std::size_t>(count)});
    }
}

bool containsFile(const fs::path& folder) {
    std::error_code error;
    for (fs::recursive_directory_iterator each(folder, error), end; !error && each != end; each.increment(error))
        if (fs::is_regular_file(each->symlink_status(error))) return true;
    return false;
}

std::string nameOf(const AssetVersion& version) {
    return std::to_string(version.content) + '.' + std::to_string(version.mastered);
}

std::optional<std::int64_t> parseNumber(std::string_view text) {
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    return whole && number >= 0 ? std::optional(number) : std::nullopt;
}

// Accepts only the form that this program writes: "5.12" is a version, "05.12" is not.
std::optional<AssetVersion> versionOf(const std::string& name) {
    const auto dot = std::min(name.find('.'), name.size());
    const auto content = parseNumber(name.substr(0, dot));
    const auto mastered = parseNumber(name.substr(std::min(dot + 1, name.size())));
    if (!content || !mastered || nameOf({*content, *mastered}) != name) return std::nullopt;
    return AssetVersion{*content, *mastered};
}

// Removes the staging folders of killed processes, whose locks ended with them. The caller must have locked the store,
// because a new staging folder is not locked at first.
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
    const auto length = lineEnd == std::string_view::npos ? std::nullopt : parseNumber(stored.substr(0, lineEnd));
    if (!length) return std::nullopt;
    stored.remove_prefix(lineEnd + 1);
    const auto signatureSize = static_cast<std::uint64_t>(*length);
    if (signatureSize > stored.size()) return std::nullopt;
    return SignedCatalog{std::string(stored.substr(signatureSize)), std::string(stored.substr(0, signatureSize))};
}

// The last serial accepted; -1 when there is none. A serial that cannot be read is a failure: if it counted as none, an
// old catalog would be accepted.
AssetResult<std::int64_t> readLastSerial(const fs::path& path) {
    if (::access(path.c_str(), F_OK) != 0 && errno == ENOENT) return -1;
    const auto text = readFile(path, 32);
    if (!text || !text->ends_with('\n')) return AssetError::storeFailed;
    const auto serial = parseNumber(std::string_view(*text).substr(0, text->size() - 1));
    if (!serial) return AssetError::storeFailed;
    return *serial;
}

}  // namespace

StagedAsset::StagedAsset(fs::path folder, FileDescriptor lock) : folder_(std::move(folder)), lock_(std::move(lock)) {}

StagedAsset::~StagedAsset() {
    std::error_code ignored;
    if (lock_) fs::remove_all(folder_, ignored);
}

AssetStatus StagedAsset::addFile(const AssetFile& file, const std::function<AssetStatus(const ByteSink&)>& transfer) {
    // O_EXCL: a file that is there already is not of this download.
    auto out = openBelow(folder_ / "content", file.path, O_WRONLY | O_CREAT | O_EXCL);
    if (!out) return out.error();
    Sha256 digest;
    std::uint64_t size = 0;
    const auto received = transfer([&](std::string_view bytes) -> AssetStatus {
        size += bytes.size();
        // Before the write, so that a server cannot fill the disk.
        if (size > file.size) return AssetError::fileSizeWrong;
        digest.add(bytes);
        return statusOf(writeAll(out->get(), bytes));
    });
    if (!received) return received;
    if (size != file.size) return AssetError::fileSizeWrong;
    if (digest.finish() != file.sha256) return AssetError::fileDigestWrong;
    return statusOf(syncAndClose(*out));
}

AssetResult<std::vector<AssetVersion>> AssetStore::listInstalled(const std::string& type) const {
    if (!acceptableAssetType(type)) return AssetError::storeFailed;
    std::vector<AssetVersion> versions;
    for (const auto& folder : {root_, root_ / type}) {
        const auto state = inspectFolder(folder);
        if (state == Folder::missing) return versions;
        if (state != Folder::trusted) return AssetError::storeFailed;
    }
    std::error_code error;
    for (fs::directory_iterator each(root_ / type, error), end; !error && each != end; each.increment(error)) {
        const auto version = versionOf(each->path().filename());
        if (version && inspectFolder(each->path()) == Folder::trusted && containsFile(each->path()))
            versions.push_back(*version);
    }
    if (error) return AssetError::storeFailed;
    return versions;
}

bool AssetStore::isComplete(const Asset& asset) const {
    const auto installed = listInstalled(asset.type);
    if (!installed || std::find(installed->begin(), installed->end(), asset.version) == installed->end()) return false;
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
AssetStatus AssetStore::storeCatalog(const SignedCatalog& received, std::int64_t serial) const {
    if (const auto made = makeRoot(root_); !made) return made;
    const auto lock = lockStore(root_);
    if (!lock) return AssetError::storeFailed;
    const auto last = readLastSerial(root_ / ".serial");
    if (!last) return last.error();
    if (serial < *last) return AssetError::serialTooLow;
    return statusOf(replaceFile(root_ / ".serial", std::to_string(serial) + '\n') &&
                    replaceFile(root_ / ".catalog", encodeCatalog(received)));
}

AssetResult<StagedAsset> AssetStore::stage(const std::string& type) const {
    if (!acceptableAssetType(type)) return AssetError::storeFailed;
    for (const auto& made : {makeRoot(root_), makeTrustedFolder(root_ / type)})
        if (!made) return made.error();
    const auto lock = lockStore(root_);
    if (!lock) return AssetError::storeFailed;
    removeLeftovers(root_ / type);
    std::string folder = root_ / type / (std::string(stagingPrefix) + "XXXXXX");
    if (::mkdtemp(folder.data()) == nullptr) return AssetError::storeFailed;
    FileDescriptor opened(::open(folder.c_str(), folderFlags));
    if (!opened || ::flock(opened.get(), LOCK_EX | LOCK_NB) != 0) return AssetError::storeFailed;
    StagedAsset staged(folder, std::move(opened));
    if (!makeFolder(fs::path(folder) / "content")) return AssetError::storeFailed;
    return staged;
}

AssetStatus AssetStore::install(const Asset& asset, StagedAsset& staged) const {
    const auto lock = lockStore(root_);
    if (!lock) return AssetError::storeFailed;
    // Under the lock: another process may have installed a version since this download began.
    auto listed = listInstalled(asset.type);
    if (!listed) return listed.error();
    auto& installed = *listed;
    std::sort(installed.begin(), installed.end());
    if (!installed.empty() && installed.back() > asset.version) return AssetError::versionTooLow;
    if (isComplete(asset)) return {};

    // An incomplete folder of this version is renamed into the staging folder, whose destructor removes it. So a folder
    // that is only partly removed never has the name of a version.
    const auto place = folderOf(asset);
    std::error_code ignored;
    fs::rename(place, staged.folder_ / "replaced", ignored);
    const auto content = staged.folder_ / "content";
    if (!syncFolders(content) || ::rename(content.c_str(), place.c_str()) != 0 || !syncFolder(place.parent_path()))
        return AssetError::storeFailed;
    // Renamed into the staging folder, whose destructor removes them: no version is ever half removed. The new version
    // counts as one of maxVersions.
    std::erase(installed, asset.version);
    for (std::size_t oldest = 0; oldest + maxVersions <= installed.size(); ++oldest) {
        const auto name = nameOf(installed[oldest]);
        fs::rename(root_ / asset.type / name, staged.folder_ / name, ignored);
    }
    return {};
}

}  // namespace tarnwick
