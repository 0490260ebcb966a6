// corpus KIND DIRECTORY PERCENT: writes so much of one of the benchmark's corpora, the same bytes every time.
//
//   logs            3,000 log files, about 600 MB
//   small           50,000 files of 0.2 to 8 KiB: settings, reports, short logs
//   incompressible  about 450 MB: compressed files, and sparse files like core dumps
//   count:N         N files of a few bytes, for the cost of an entry
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

std::mt19937_64 dice(20240607);

std::uint64_t below(std::uint64_t limit) { return dice() % limit; }

// Words as often as in a language: the n-th word comes up in proportion to 1/n.
class Vocabulary {
public:
    explicit Vocabulary(std::size_t size) {
        static const char* const syllables[] = {"ta", "re", "mi", "con", "ser", "ver", "st", "ing",
                                                "lo", "ad", "en", "tor", "pa",  "ck",  "fi", "le",
                                                "sy", "nc", "ba", "er",  "un",  "de",  "pro"};
        double sum = 0;
        for (std::size_t i = 0; i < size; ++i) {
            std::string word;
            for (std::uint64_t n = 1 + below(4); n > 0; --n) word += syllables[below(std::size(syllables))];
            words_.push_back(word);
            sums_.push_back(sum += 1.0 / static_cast<double>(i + 3));
        }
    }
    const std::string& word() {
        const double at = std::uniform_real_distribution<>(0, sums_.back())(dice);
        return words_[static_cast<std::size_t>(std::lower_bound(sums_.begin(), sums_.end(), at) - sums_.begin())];
    }
    std::string sentence(std::size_t words) {
        std::string text = word();
        while (--words > 0) text += ' ' + word();
        return text;
    }

private:
    std::vector<std::string> words_;
    std::vector<double> sums_;
};

Vocabulary& vocabulary() {
    static Vocabulary words(12000);
    return words;
}

std::string number(std::uint64_t value, const char* format = "%llu") {
    char text[40];
    std::snprintf(text, sizeof text, format, static_cast<unsigned long long>(value));
    return text;
}

// A service has a few dozen kinds of message; what varies in one is marked: %w a word, %n a number, %x an address,
// %s free text.
class Service {
public:
    Service() : name_(vocabulary().word() + "d"), pid_(300 + below(60000)) {
        for (int i = 0; i < 40; ++i) {
            std::string form;
            for (std::uint64_t n = 4 + below(10); n > 0; --n) {
                static const char* const fields[] = {"%w", "%n", "%x", "%s"};
                form += (form.empty() ? "" : " ") +
                        (below(4) ? vocabulary().word() : vocabulary().word() + "=" + fields[below(4)]);
            }
            forms_.push_back(form);
        }
    }
    std::string message() {
        const auto rank = static_cast<std::size_t>(std::exponential_distribution<>(0.12)(dice));
        const std::string& form = forms_[rank % forms_.size()];
        std::string text = name_ + '[' + number(pid_) + "]: ";
        for (std::size_t i = 0; i < form.size(); ++i) {
            if (form[i] != '%') {
                text += form[i];
                continue;
            }
            const char kind = form[++i];
            if (kind == 'w') text += vocabulary().word();
            if (kind == 'n') text += number(below(std::uint64_t{1} << (4 + below(20))));
            if (kind == 'x') text += number(0xffff800000000000 + (dice() & 0xfffffff8), "0x%llx");
            if (kind == 's') text += vocabulary().sentence(2 + below(6));
        }
        return text;
    }

private:
    std::string name_;
    std::uint64_t pid_;
    std::vector<std::string> forms_;
};

std::string logText(std::size_t size, std::vector<Service>& services) {
    std::string text;
    std::uint64_t clock = below(86400000000);
    while (text.size() < size) {
        clock += below(below(20) ? 200000 : 20000000);
        char stamp[48];
        std::snprintf(stamp, sizeof stamp, "2024-06-%02d %02d:%02d:%02d.%06d host ", int(1 + clock / 86400000000 % 28),
                      int(clock / 3600000000 % 24), int(clock / 60000000 % 60), int(clock / 1000000 % 60),
                      int(clock % 1000000));
        text += stamp + services[below(services.size())].message() + '\n';
    }
    text.resize(size);
    return text;
}

std::string settingsText(std::size_t size) {
    static std::vector<std::string> keys;
    while (keys.size() < 400) keys.push_back(vocabulary().word() + "_" + vocabulary().word());
    std::string text = "# " + vocabulary().sentence(8) + "\n[" + vocabulary().word() + "]\n";
    while (text.size() < size) {
        text += keys[below(keys.size())] + " = ";
        switch (below(4)) {
            case 0: text += number(below(100000)); break;
            case 1: text += below(2) ? "true" : "false"; break;
            case 2: text += "/usr/lib/" + vocabulary().word() + "/" + vocabulary().word() + ".so"; break;
            default: text += '"' + vocabulary().sentence(1 + below(5)) + '"';
        }
        text += '\n';
    }
    text.resize(size);
    return text;
}

void store(const fs::path& path, std::string_view text) {
    fs::create_directories(path.parent_path());
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file || std::fwrite(text.data(), 1, text.size(), file) != text.size() || std::fclose(file) != 0) {
        std::perror(path.c_str());
        std::exit(1);
    }
}

std::string noise(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i + 8 <= size; i += 8) {
        const std::uint64_t word = dice();
        std::memcpy(bytes.data() + i, &word, 8);
    }
    return bytes;
}

void logs(const fs::path& root, std::uint64_t percent) {
    std::vector<Service> all(60);
    for (std::uint64_t i = 0; i < 30 * percent; ++i) {
        std::vector<Service> services;
        for (std::uint64_t n = 1 + below(6); n > 0; --n) services.push_back(all[below(all.size())]);
        const double size = std::exp(std::normal_distribution<>(11.4, 1.3)(dice));
        store(root / number(i / 100) / ("service-" + number(i) + ".log"),
              logText(static_cast<std::size_t>(std::min(size, 8e6)), services));
    }
}

void small(const fs::path& root, std::uint64_t percent) {
    std::vector<Service> services(20);
    for (std::uint64_t i = 0; i < 500 * percent; ++i) {
        const auto size = static_cast<std::size_t>(200 + below(7993));
        const bool settings = below(3) > 0;
        store(root / number(i / 100) / (vocabulary().word() + number(i, settings ? "-%llu.conf" : "-%llu.log")),
              settings ? settingsText(size) : logText(size, services));
    }
}

void sparse(const fs::path& path) {
    store(path, "");
    const int file = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    off_t at = 0;
    for (int segment = 0; segment < 40; ++segment) {
        std::string bytes = noise(65536 + below(3) * 65536);
        // Much of a process's memory is zeros and pointers.
        for (std::size_t page = 0; page < bytes.size(); page += 4096) {
            if (below(3) == 0) bytes.replace(page, 4096, 4096, '\0');
            if (below(3) == 0)
                for (std::size_t i = page; i < page + 4096; i += 8)
                    bytes.replace(i + 2, 6, "\x7f\x55\x00\x00\x00\x00", 6);
        }
        if (::pwrite(file, bytes.data(), bytes.size(), at) < 0) std::exit(1);
        at += static_cast<off_t>(bytes.size() + below(8) * 32768);
    }
    if (::ftruncate(file, at) != 0 || ::close(file) != 0) std::exit(1);
}

void incompressible(const fs::path& root, std::uint64_t percent) {
    for (std::uint64_t i = 0; i < (60 * percent + 99) / 100; ++i)
        store(root / ("journal-" + number(i) + ".zst"), noise((1 + below(10)) << 20));
    for (std::uint64_t i = 0; i < 6 * percent; ++i)
        store(root / "rotated" / (number(i) + ".gz"), noise(10000 + below(100000)));
    for (std::uint64_t i = 0; i < (16 * percent + 99) / 100; ++i) sparse(root / ("core." + number(1000 + i)));
}

void count(const fs::path& root, std::uint64_t files) {
    for (std::uint64_t i = 0; i < files; ++i)
        store(root / number(i / 1000) / ("report-" + number(i, "%07llu") + ".txt"), number(i));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    const std::string kind = argv[1];
    const fs::path root = argv[2];
    const std::uint64_t percent = std::stoull(argv[3]);
    if (kind == "logs")
        logs(root, percent);
    else if (kind == "small")
        small(root, percent);
    else if (kind == "incompressible")
        incompressible(root, percent);
    else if (kind.starts_with("count:"))
        count(root, std::stoull(kind.substr(6)));
    else
        return 2;
    return 0;
}
