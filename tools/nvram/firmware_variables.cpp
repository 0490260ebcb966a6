#include "firmware_variables.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string_view>

#include "base/handle.h"
#include "withheld.h"

namespace tarnwick {

namespace {

constexpr std::size_t attributesSize = 4;
constexpr std::size_t guidSize = 36;
constexpr int maxReads = 11;

struct VariableName {
    std::string_view name;
    std::string_view guid;
};

bool isGuid(std::string_view text) {
    static constexpr std::string_view shape = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
    const auto fits = [](char letter, char pattern) {
        const bool hex = std::string_view("0123456789abcdefABCDEF").find(letter) != std::string_view::npos;
        return pattern == 'x' ? hex : letter == '-';
    };
    return text.size() == shape.size() && std::equal(text.begin(), text.end(), shape.begin(), fits);
}

// Splits at the end, because a name may contain dashes or a text that looks like a GUID.
std::optional<VariableName> splitName(std::string_view file) {
    if (file.size() < guidSize + 2 || file[file.size() - guidSize - 1] != '-') return std::nullopt;
    const auto guid = file.substr(file.size() - guidSize);
    if (!isGuid(guid)) return std::nullopt;
    return VariableName{file.substr(0, file.size() - guidSize - 1), guid};
}

std::string escaped(std::string_view bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size());
    for (const char letter : bytes) {
        const auto byte = static_cast<unsigned char>(letter);
        if (byte >= 0x20 && byte < 0x7f && byte != '%')
            text += letter;
        else
            text.append({'%', digits[byte >> 4], digits[byte & 15]});
    }
    return text;
}

std::vector<std::string> variableFiles(const std::filesystem::path& folder) {
    std::vector<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error))
        names.push_back(entry->path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

class Dump {
public:
    Dump(const std::filesystem::path& folder, const std::function<void(const std::string&)>& write,
         const ReadCall& read)
        : folder_(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)), write_(write), read_(read) {}
    ~Dump() { wipeBuffer(); }
    Dump(const Dump&) = delete;
    Dump& operator=(const Dump&) = delete;

    VariableDump run(const std::vector<std::string>& files) {
        for (std::size_t i = 0; i < files.size(); ++i) {
            result_.found = true;
            if (remaining_ <= files[i].size()) {
                write_("%[cut: " + std::to_string(files.size() - i) + " more variables]\n");
                break;
            }
            if (auto dumped = dumpOne(files[i]); !dumped) result_.problems.push_back(dumped.error());
        }
        return std::move(result_);
    }

private:
    Status dumpOne(const std::string& file) {
        const auto name = splitName(file);
        if (!name) return Error{"not the name of a variable", 0, file};
        const auto size = readFile(file);
        if (!size) return size.error();
        remaining_ -= file.size();
        const auto value = std::string_view(buffer_).substr(attributesSize, *size - attributesSize);
        write_(escaped(file) + "\t" + shown(name->name, value) + "\n");
        wipeBuffer();
        ++result_.shown;
        return {};
    }

    std::string shown(std::string_view name, std::string_view value) {
        const auto secret = whySecret(name);
        const std::string size =
            value.size() > maxValueBytes ? "more than " + std::to_string(maxValueBytes) : std::to_string(value.size());
        if (secret) return "%[withheld: " + std::string(*secret) + ", " + size + " bytes]";
        const auto part = value.substr(0, std::min(maxValueBytes, remaining_));
        remaining_ -= part.size();
        const bool whole = part.size() == value.size();
        return escaped(part) + (whole ? "" : "%[cut: " + std::to_string(part.size()) + " of " + size + " bytes]");
    }

    // Reads the file into the buffer and returns the size of its content.
    Result<std::size_t> readFile(const std::string& file) {
        constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
        const FileDescriptor opened(::openat(folder_.get(), file.c_str(), flags));
        struct stat status {};
        if (!opened || ::fstat(opened.get(), &status) != 0) return systemError(errno, file);
        if (!S_ISREG(status.st_mode)) return Error{"not a regular file", 0, file};
        ssize_t count = -1;
        for (int attempt = 0; attempt < maxReads; ++attempt) {
            count = read_(opened.get(), buffer_.data(), buffer_.size());
            if (count >= 0 || errno != EINTR) break;
        }
        if (count < 0) return systemError(errno, file);
        if (count < static_cast<ssize_t>(attributesSize))
            return Error{"too short: a variable has 4 bytes of attributes", 0, file};
        return static_cast<std::size_t>(count);
    }

    void wipeBuffer() { explicit_bzero(buffer_.data(), buffer_.size()); }

    FileDescriptor folder_;
    const std::function<void(const std::string&)>& write_;
    const ReadCall& read_;
    std::string buffer_ = std::string(attributesSize + maxValueBytes + 1, '\0');  // 1 more shows a longer value
    std::size_t remaining_ = maxDumpBytes;
    VariableDump result_;
};

}  // namespace

VariableDump dumpVariables(const std::filesystem::path& folder, const std::function<void(const std::string&)>& write,
                           const ReadCall& read) {
    return Dump(folder, write, read).run(variableFiles(folder));
}

}  // namespace tarnwick
