#include "qvx/write/path_list.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "base/guarded_open.h"
#include "qvx/format/entry_codec.h"
#include "qvx/format/wire.h"

namespace tarnwick::qvx {

namespace {

// pathOf() decodes up to one piece to find a path.
constexpr std::size_t pieceSize = 16384;
constexpr std::uint8_t guardedBit = 0x80;  // in the byte of the type: device and inode of the folder follow

}  // namespace

void PathList::append(const Entry& entry) {
    if (pieces_.empty() || pieces_.back().coded.size() >= pieceSize) {
        if (!pieces_.empty()) pieces_.back().coded.shrink_to_fit();
        pieces_.push_back({count_, {}});
        // Coding restarts, so that pathOf() can begin at any piece.
        last_ = {};
    }
    const auto shared = static_cast<std::size_t>(
        std::mismatch(last_.path.begin(), last_.path.end(), entry.path.begin(), entry.path.end()).first -
        last_.path.begin());
    WireWriter out(pieces_.back().coded);
    out.varint(shared);
    out.text(std::string_view(entry.path).substr(shared));
    out.byte(static_cast<std::uint8_t>(static_cast<unsigned>(entry.type) | (entry.isGuarded() ? guardedBit : 0U)));
    out.varint(deviceNumber(entry.device));
    // Unsigned: the difference may wrap here, and the sum wraps back when it is decoded.
    out.signedVarint(static_cast<std::int64_t>(entry.inode - last_.inode));
    if (entry.isGuarded()) {
        out.varint(deviceNumber(entry.folderDevice));
        out.signedVarint(static_cast<std::int64_t>(entry.folderInode - last_.folderInode));
    }
    last_ = entry;
    ++count_;
}

std::uint64_t PathList::deviceNumber(dev_t device) {
    // A list names few devices, so a linear search is enough.
    auto known = std::find(devices_.begin(), devices_.end(), device);
    if (known == devices_.end()) known = devices_.insert(devices_.end(), device);
    return static_cast<std::uint64_t>(known - devices_.begin());
}

void PathList::append(const PathList& other) {
    Cursor cursor(other);
    while (const Entry* entry = cursor.next()) append(*entry);
}

void PathList::append(PathList&& other) {
    if (count_ == 0) devices_ = other.devices_;
    if (devices_ != other.devices_) return append(std::as_const(other));
    for (Piece& piece : other.pieces_) pieces_.push_back({count_ + piece.first, std::move(piece.coded)});
    count_ += other.count_;
    last_ = other.last_;
    other = {};
}

std::string PathList::pathOf(std::uint64_t number) const {
    const auto after = std::upper_bound(pieces_.begin(), pieces_.end(), number,
                                        [](std::uint64_t key, const Piece& piece) { return key < piece.first; });
    Cursor cursor(*this);
    cursor.piece_ = static_cast<std::size_t>(after - pieces_.begin()) - 1;
    for (std::uint64_t at = pieces_[cursor.piece_].first; at < number; ++at) cursor.next();
    return cursor.next()->path;
}

// The bytes are from append(), not from a file, so they are not validated.
const PathList::Entry* PathList::Cursor::next() {
    if (piece_ == list_.pieces_.size()) return nullptr;
    if (position_ == list_.pieces_[piece_].coded.size()) {
        ++piece_;
        position_ = 0;
        return next();
    }
    if (position_ == 0) entry_ = {};
    const auto& coded = list_.pieces_[piece_].coded;
    WireReader in(Bytes(coded).subspan(position_));
    entry_.path.resize(in.varint());
    entry_.path += in.text();
    const std::uint8_t type = in.byte();
    entry_.type = static_cast<EntryType>(type & ~guardedBit);
    entry_.device = list_.devices_[in.varint()];
    entry_.inode += static_cast<ino_t>(in.signedVarint());
    entry_.folderDevice = type & guardedBit ? list_.devices_[in.varint()] : 0;
    entry_.folderInode = type & guardedBit ? entry_.folderInode + static_cast<ino_t>(in.signedVarint()) : 0;
    position_ = coded.size() - in.left();
    return &entry_;
}

namespace {

// Only the kernel can resolve "..", because the component before it may be a link.
std::string realPath(std::string_view directory, std::string_view path, std::error_code& error) {
    const auto whole = std::filesystem::path(directory) / path;
    const auto name = whole.filename();
    // A link is archived as a link, so the last component is resolved only when it is no name.
    if (name.empty() || name == "." || name == "..") return std::filesystem::canonical(whole, error);
    return std::filesystem::canonical(whole.parent_path(), error) / name;
}

Result<std::string> listedPath(std::string_view directory, std::string_view path) {
    if (path.empty()) return Error{"an empty path names no file"};
    // The kernel would end the path at the zero byte, and another file would be archived.
    if (path.find('\0') != std::string_view::npos) return systemError(EINVAL, std::string(path));
    if (auto normal = normalPath(directory, path)) return std::move(*normal);
    std::error_code error;
    const std::string real = realPath(directory, path, error);
    if (error) return systemError(error.value(), std::string(path));
    if (auto normal = normalPath("/", real)) return std::move(*normal);
    return systemError(ENAMETOOLONG, std::string(path));
}

Error unsupportedType(std::string_view path) {
    return {"neither a regular file, a directory nor a symbolic link", 0, std::string(path)};
}

// Looks for the name in its folder: the kernel refuses a path of 4096 bytes, but that of a folder is always shorter.
template <typename OpenFolder>
Result<PathList::Entry> lookUpIn(const OpenFolder& open, std::string_view directory, std::string_view path) {
    auto listed = listedPath(directory, path);
    if (!listed) return listed.error();
    const auto folder = open(std::string(folderOf(*listed)));
    struct stat own {
    }, status{};
    if (!folder) return systemError(folder.error().code, std::string(path));
    if (::fstat(folder->get(), &own) != 0 ||
        ::fstatat(folder->get(), nameOf(*listed), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return systemError(errno, std::string(path));
    const auto type = entryTypeOf(status.st_mode);
    if (!type) return unsupportedType(path);
    return PathList::Entry{std::move(*listed), *type, status.st_dev, status.st_ino, own.st_dev, own.st_ino};
}

}  // namespace

std::string_view folderOf(std::string_view listed) { return listed.substr(0, listed.rfind('/') + 1); }

const char* nameOf(const std::string& listed) {
    const char* name = listed.c_str() + folderOf(listed).size();
    return *name ? name : ".";
}

Result<FileDescriptor> openDirectory(const std::string& path) {
    FileDescriptor directory(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory) return systemError(errno);
    return directory;
}

std::optional<std::string> normalPath(std::string_view directory, std::string_view path) {
    if (path.empty()) return std::nullopt;
    std::string whole(path.starts_with('/') ? std::string_view() : directory);
    whole.append("/").append(path);
    std::string normal;
    for (std::size_t begin = 0; begin < whole.size();) {
        const std::size_t end = std::min(whole.find('/', begin), whole.size());
        const std::string_view component = std::string_view(whole).substr(begin, end - begin);
        if (!component.empty() && component != ".") normal.append("/").append(component);
        begin = end + 1;
    }
    if (!isEntryPath(std::string_view(normal).substr(normal.empty() ? 0 : 1))) return std::nullopt;
    return normal.empty() ? "/" : normal;
}

Result<PathList::Entry> lookUp(std::string_view directory, std::string_view path) {
    auto entry = lookUpIn(openDirectory, directory, path);
    if (entry) entry->folderDevice = entry->folderInode = 0;
    return entry;
}

Result<PathList::Entry> lookUpGuarded(std::string_view directory, std::string_view path) {
    return lookUpIn(openDirectoryGuarded, directory, path);
}

std::optional<EntryType> entryTypeOf(mode_t mode) {
    if (S_ISREG(mode)) return EntryType::file;
    if (S_ISDIR(mode)) return EntryType::directory;
    if (S_ISLNK(mode)) return EntryType::link;
    return std::nullopt;
}

}  // namespace tarnwick::qvx
