// corpus KIND DIRECTORY PERCENT: writes so much of one of the benchmark's corpora, the same bytes every time.
//
//   logs            3,000 log files, about 600 MB
//   small           50,000 files of 0.2 to 8 KiB: settings, reports, short logs
//   incompressible  about 450 MB: compressed files, and sparse files like core dumps
//   journals        400 logs in three other forms, about 600 MB
//   reports         50,000 files of 2.1 KB on average in 1,400 folders: what programs print, record and document
//   machine         about 500 MB of reports, journals, programs and libraries of this machine, and compressed files
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

std::string hexadecimal(std::size_t digits) {
    std::string text;
    while (text.size() < digits) text += number(dice(), "%016llx");
    return text.substr(0, digits);
}

std::string chosen(std::initializer_list<const char*> texts) { return texts.begin()[below(texts.size())]; }

std::string timeText() {
    return "2024-" + number(1 + below(12), "%02llu") + '-' + number(1 + below(28), "%02llu") + 'T' +
           number(below(24), "%02llu") + ':' + number(below(60), "%02llu") + ':' + number(below(60), "%02llu") + 'Z';
}

// A name that few programs have, and a key that many records have.
std::string application() {
    static std::vector<std::string> names;
    while (names.size() < 80) names.push_back(vocabulary().word() + number(names.size()));
    return names[below(names.size())];
}

std::string key() {
    static std::vector<std::string> keys;
    while (keys.size() < 300) keys.push_back(vocabulary().word());
    return keys[below(keys.size())];
}

std::string recordText() {
    std::string text = "{\n  \"id\": \"" + hexadecimal(32) + "\",\n  \"application\": \"" + application() +
                       "\",\n  \"time\": \"" + timeText() + "\",\n  \"events\": [\n";
    for (std::uint64_t n = 6 + below(30); n > 0; --n)
        text += "    {\"name\": \"" + key() + "\", \"value\": " + number(below(100000)) + ", \"message\": \"" +
                vocabulary().sentence(2 + below(8)) + (n > 1 ? "\"},\n" : "\"}\n");
    return text + "  ]\n}\n";
}

std::string propertiesText() {
    std::string text = "[" + application() + "]\n";
    for (std::uint64_t n = 15 + below(95); n > 0; --n)
        text += key() + '.' + key() + '=' +
                (below(2)   ? chosen({"true", "false", "0", "auto"})
                 : below(2) ? hexadecimal(16)
                            : number(dice() >> 44)) +
                '\n';
    return text;
}

std::string processesText() {
    std::string text = "USER         PID %CPU %MEM    VSZ   RSS TTY      STAT START   TIME COMMAND\n";
    for (std::uint64_t n = 12 + below(58); n > 0; --n)
        text += chosen({"root      ", "alice     ", "daemon    "}) + number(below(99999), "%6llu") +
                number(below(9), "  %llu.") + number(below(9), "%llu  0.1 ") + number(below(999999), "%6llu ") +
                number(below(99999), "%5llu ") + chosen({"?        Ss   ", "?        Sl   ", "pts/0    R+   "}) +
                number(below(24), "%02llu:") + number(below(60), "%02llu   0:") + number(below(60), "%02llu ") +
                "/usr/bin/" + application() + " --" + key() + '\n';
    return text;
}

std::string crashText() {
    const std::string name = application();
    std::string text = "Process: " + name + " [" + number(below(99999)) + "]\nPath: /usr/lib/" + name + '/' + name +
                       "\nBuild: " + hexadecimal(40) + "\nTime: " + timeText() + "\nSignal: SIGSEGV at 0x7f" +
                       hexadecimal(10) + "\n\nThread 0 crashed:\n";
    for (std::uint64_t n = 0, frames = 12 + below(40); n < frames; ++n)
        text += number(n, "#%-3llu 0x7f") + hexadecimal(10) + " in " + key() + '_' + key() + "+0x" + hexadecimal(3) +
                " (lib" + key() + ".so)\n";
    for (std::uint64_t n = 0; n < 16; ++n) text += number(n, "  r%-3llu 0x") + hexadecimal(16) + '\n';
    return text;
}

std::string manualText() {
    const std::string name = application();
    std::string text = ".TH " + name + " 1\n.SH NAME\n" + name + " \\- " + vocabulary().sentence(6) + "\n.SH OPTIONS\n";
    for (std::uint64_t n = 5 + below(32); n > 0; --n)
        text += ".TP\n.BR \\-\\-" + key() + "\n" + vocabulary().sentence(5 + below(15)) + ".\n";
    return text;
}

void reports(const fs::path& root, std::uint64_t percent) {
    std::vector<fs::path> folders;
    for (std::uint64_t i = 0; i < 1 + 14 * percent; ++i)
        folders.push_back(root / number(i % 37) / (application() + "-" + number(i)));
    for (std::uint64_t i = 0; i < 500 * percent; ++i) {
        const fs::path folder = folders[below(folders.size())];
        const std::uint64_t kind = below(20);
        if (kind < 6) {
            store(folder / ("record-" + number(i) + ".json"), recordText());
        } else if (kind < 11) {
            store(folder / (number(i) + ".properties"), propertiesText());
        } else if (kind < 14) {
            store(folder / ("ps-" + number(i) + ".txt"), processesText());
        } else if (kind < 17) {
            store(folder / (application() + '.' + number(i) + ".crash"), crashText());
        } else {
            store(folder / (key() + '-' + number(i) + ".1"), manualText());
        }
    }
}

std::string accessLine() {
    return "10." + number(below(4)) + '.' + number(below(256)) + '.' + number(below(256)) + " - - [" + timeText() +
           "] \"GET /" + key() + '/' + key() + "?id=" + number(below(100000)) + " HTTP/1.1\" " +
           chosen({"200 ", "200 ", "200 ", "304 ", "404 "}) + number(below(50000)) + " \"-\" \"" + application() +
           "\"\n";
}

std::string kernelLine(std::uint64_t& clock) {
    clock += below(400000);
    return '[' + number(clock / 1000000, "%5llu.") + number(clock % 1000000, "%06llu] ") + key() +
           " 0000:" + number(below(4), "%02llu:") + number(below(32), "%02llu.0: ") +
           vocabulary().sentence(3 + below(7)) + " 0x" + hexadecimal(8) + '\n';
}

std::string eventLine() {
    return "{\"time\":\"" + timeText() + "\",\"unit\":\"" + application() +
           ".service\",\"pid\":" + number(below(60000)) + ",\"message\":\"" + vocabulary().sentence(3 + below(10)) +
           "\"}\n";
}

void journals(const fs::path& root, std::uint64_t percent) {
    for (std::uint64_t i = 0; i < 4 * percent; ++i) {
        const std::uint64_t form = i % 3;
        const auto size = static_cast<std::size_t>(200000 + below(2600000));
        std::string text;
        for (std::uint64_t clock = 0; text.size() < size;)
            text += form == 0 ? accessLine() : form == 1 ? kernelLine(clock) : eventLine();
        store(root / (form == 0 ? "access" : form == 1 ? "kernel" : "events") / (number(i) + ".log"), text);
    }
}

// The programs and libraries are real ones, so this corpus is the same only on machines with the same packages.
void machine(const fs::path& root, std::uint64_t percent) {
    reports(root / "reports", percent / 4 + 1);
    journals(root / "journals", percent / 4 + 1);
    for (std::uint64_t i = 0; i < (20 * percent + 99) / 100; ++i)
        store(root / "rotated" / (number(i) + ".xz"), noise((1 + below(6)) << 20));
    std::uint64_t left = 2'000'000 * percent;
    std::vector<fs::path> files;
    for (const auto* folder : {"/usr/bin", "/usr/lib/x86_64-linux-gnu"})
        for (const auto& file : fs::directory_iterator(folder))
            if (file.is_regular_file() && !file.is_symlink() && file.file_size() < 8'000'000)
                files.push_back(file.path());
    std::ranges::sort(files);
    fs::create_directories(root / "programs");
    for (const auto& file : files) {
        const auto size = fs::file_size(file);
        if (size > left) break;
        left -= size;
        fs::copy_file(file, root / "programs" / file.filename(), fs::copy_options::skip_existing);
    }
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
    else if (kind == "journals")
        journals(root, percent);
    else if (kind == "reports")
        reports(root, percent);
    else if (kind == "machine")
        machine(root, percent);
    else if (kind.starts_with("count:"))
        count(root, std::stoull(kind.substr(6)));
    else
        return 2;
    return 0;
}
