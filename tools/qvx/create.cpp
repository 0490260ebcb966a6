#include "create.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <thread>

#include "key_files.h"
#include "platform/archive_library.h"
#include "qvx/write/archive_encoder.h"
#include "qvx/write/disk_entry.h"
#include "qvx/write/path_list.h"
#include "report.h"

namespace tarnwick::qvx {

namespace fs = std::filesystem;

namespace {

using KeySetHandle = std::unique_ptr<FieldKeySet, FreeWith<destroyFieldKeySet>>;
using ContextHandle = std::unique_ptr<EncryptionContext, FreeWith<destroyEncryptionContext>>;
using ByteStreamHandle = std::unique_ptr<ByteStream, FreeWith<closeByteStream>>;
using ArchiveStreamHandle = std::unique_ptr<ArchiveStream, FreeWith<closeArchiveStream>>;

constexpr const char* allFields = "UID,GID,MOD,FLG,MTM,CTM,BTM,DAT,SH2,SLC,CLC,HLC,XAT,ACL";
constexpr int readers = 8;          // they mostly wait for the disk
constexpr unsigned maxSealers = 8;  // each needs memory, and a single thread fills the blocks for all of them

struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
};

std::optional<FileIdentity> identify(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return std::nullopt;
    return FileIdentity{status.st_dev, status.st_ino};
}

// Collects absolute paths for the archive.
class Collection {
public:
    explicit Collection(std::optional<FileIdentity> output) : working_(fs::current_path().string()), output_(output) {}

    bool add(const std::string& path) {
        const auto entry = lookUp(working_, path);
        if (entry) {
            list_.append(*entry);
            return true;
        }
        struct stat status {};
        const bool missing = path.empty() || lstat(path.c_str(), &status) != 0;
        say(escapedName(path) + ": " +
            (missing ? std::strerror(path.empty() ? ENOENT : errno)
                     : "neither a regular file, a directory nor a symbolic link"));
        return false;
    }

    // Adds the path and, if it is a directory, everything below it in order of names.
    bool addTree(const std::string& path) {
        if (!add(path)) return false;
        struct stat status {};
        if (lstat(path.c_str(), &status) != 0) {
            sayError(escapedName(path), errno);
            return false;
        }
        return !S_ISDIR(status.st_mode) || addBelow(path);
    }

    [[nodiscard]] const PathList* list() const { return &list_; }
    [[nodiscard]] bool complete() const { return complete_; }  // every directory could be read

private:
    enum class Kind { directory, file, link, special };
    struct Found {
        std::string name;
        Kind kind;
    };

    static Kind kindOf(mode_t type) {
        if (S_ISLNK(type)) return Kind::link;
        if (S_ISDIR(type)) return Kind::directory;
        return S_ISREG(type) ? Kind::file : Kind::special;
    }

    // Most directories store the kind of a file, which saves a look at the file. The iterator of the standard library
    // would end the process when memory runs out. False with errno set.
    static bool readBelow(DIR* opened, std::vector<Found>& below) {
        for (errno = 0; const dirent* entry = readdir(opened); errno = 0) {
            const std::string_view name = entry->d_name;
            if (name == "." || name == "..") continue;
            struct stat status {};
            status.st_mode = DTTOIF(entry->d_type);
            if (entry->d_type == DT_UNKNOWN && fstatat(dirfd(opened), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0)
                return false;
            below.push_back({std::string(name), kindOf(status.st_mode)});
        }
        return errno == 0;
    }

    bool addBelow(const std::string& directory) {
        std::unique_ptr<DIR, FreeWith<closedir>> opened(opendir(directory.c_str()));
        if (!opened && isUnreadable(-errno)) {
            sayError(escapedName(directory) + ": what is in it is left out", errno);
            complete_ = false;
            return true;
        }
        std::vector<Found> below;
        if (!opened || !readBelow(opened.get(), below)) {
            sayError(escapedName(directory), errno);
            return false;
        }
        opened.reset();  // the recursion may be deep, and descriptors are limited
        std::sort(below.begin(), below.end(), [](const Found& a, const Found& b) { return a.name < b.name; });
        return std::all_of(below.begin(), below.end(), [&](const Found& found) {
            const std::string path = directory.ends_with('/') ? directory + found.name : directory + '/' + found.name;
            return leftOut(path, found.kind) || (add(path) && (found.kind != Kind::directory || addBelow(path)));
        });
    }

    // Below a directory, files that an archive cannot hold are left out with a message; so is the archive itself.
    [[nodiscard]] bool leftOut(const std::string& path, Kind kind) const {
        const bool special = kind == Kind::special;
        const bool output = kind == Kind::file && isOutput(path);
        if (special) say(escapedName(path) + ": left out, neither a file, a directory nor a symbolic link");
        if (output) say(escapedName(path) + ": left out, it is the archive");
        return special || output;
    }

    [[nodiscard]] bool isOutput(const std::string& path) const {
        struct stat status {};
        return output_ && lstat(path.c_str(), &status) == 0 && status.st_dev == output_->device &&
               status.st_ino == output_->inode;
    }

    PathList list_;
    std::string working_;
    std::optional<FileIdentity> output_;
    bool complete_ = true;
};

// Calls `take` for each name in the file. False, after a message, when `take` refuses one or the file cannot be read.
template <typename Take>
bool readNames(const std::string& path, const Take& take) {
    const auto closeFile = [](std::FILE* file) {
        if (file != stdin) std::fclose(file);
    };
    const std::unique_ptr<std::FILE, decltype(closeFile)> file(path == "-" ? stdin : std::fopen(path.c_str(), "re"),
                                                               closeFile);
    char* line = nullptr;
    std::size_t capacity = 0;
    ssize_t length = 0;
    bool good = file != nullptr;
    errno = good ? 0 : errno;
    while (good && (length = getdelim(&line, &capacity, '\0', file.get())) >= 0) {
        const std::string_view name(line, static_cast<std::size_t>(length));
        if (!take(std::string(name.substr(0, name.find('\0'))))) {
            std::free(line);
            return false;
        }
    }
    std::free(line);
    if (good && !std::ferror(file.get())) return true;
    sayError(escapedName(path), errno);
    return false;
}

bool collect(Collection& collection, const CreateOptions& options) {
    const auto addOne = [&](const std::string& path) { return collection.add(path); };
    return (options.namesFrom.empty() || readNames(options.namesFrom, addOne)) &&
           std::all_of(options.paths.begin(), options.paths.end(),
                       [&](const std::string& path) { return collection.addTree(path); });
}

Creation refuse(const char* what) {
    say(what);
    return Creation::failed;
}

void sayIncomplete(const ArchiveStream* encoder, const PathList& list) {
    for (const auto& [number, error] : incompleteEntries(encoder))
        sayError(escapedName(list.pathOf(number)) + ": stored as incomplete", error);
}

bool setUp(EncryptionContext* context, const Point& recipient) {
    return setContextFieldBlob(context, contextFieldRecipient, representationUncompressed,
                               reinterpret_cast<const std::byte*>(recipient.data()), recipient.size()) >= 0 &&
           setContextFieldUInt(context, contextFieldCompression, compressionZstd) >= 0 &&
           setContextFieldUInt(context, contextFieldBlockSize, blockSize) >= 0;
}

// `begun` becomes true when the output has been opened, and so truncated.
Creation writeArchive(const PathList* list, const Point& recipient, const std::string& output, bool& begun) {
    const ContextHandle context(createEncryptionContext(profileHpke));
    if (!context || !setUp(context.get(), recipient)) return refuse("the recipient's key is not usable");
    const KeySetHandle keys(fieldKeySetFromString(allFields));
    if (!keys) return refuse("the set of fields cannot be made");
    // Declared from the file inwards, so that the streams close from the encoder outwards.
    const ByteStreamHandle file(openFileByteStream(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
    begun = file != nullptr;
    if (!begun) return refuse((escapedName(output) + ": cannot be written").c_str());
    // More sealers than cores only evict one another's data from the caches.
    const auto sealers = static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 1U, maxSealers));
    const ByteStreamHandle encryption(openEncryptionOutputStream(file.get(), context.get(), streamFlags, sealers));
    if (!encryption) return refuse("the archive cannot be begun");
    const ArchiveStreamHandle encoder(openArchiveEncoderStream(encryption.get(), nullptr, nullptr, 0, readers));
    if (!encoder) return refuse("the archive cannot be begun");
    const int status = writePathList(encoder.get(), list, keys.get(), "/", nullptr, nullptr, 0, readers);
    if (status == 0) {
        sayIncomplete(encoder.get(), *list);
        return incompleteEntries(encoder.get()).empty() ? Creation::complete : Creation::incomplete;
    }
    sayError("the archive cannot be written", -status);
    return Creation::failed;
}

void removeOutput(const std::string& output) {
    struct stat status {};
    if (lstat(output.c_str(), &status) == 0 && S_ISREG(status.st_mode)) unlink(output.c_str());
}

}  // namespace

Creation createArchive(const CreateOptions& options) {
    const auto recipient = loadRecipient(options.recipient);
    if (!recipient) return Creation::failed;
    if (!startCipherLibrary() || !publicKeyFromPoint(*recipient)) return refuse("the recipient's key is not usable");
    const auto before = identify(options.output);
    Collection collection(before);
    if (!collect(collection, options)) return Creation::failed;
    bool begun = false;
    const Creation made = writeArchive(collection.list(), *recipient, options.output, begun);
    if (made == Creation::complete && !collection.complete()) return Creation::incomplete;
    if (made == Creation::failed && (begun || !before)) removeOutput(options.output);
    return made;
}

}  // namespace tarnwick::qvx
