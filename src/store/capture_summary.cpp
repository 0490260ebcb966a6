#include "store/capture_summary.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <iostream>

#include "log/execution_log.h"

namespace tarnwick {

namespace {

constexpr double logOf1024 = 6.931471805599453;
constexpr std::array<const char*, 5> unitNames = {"B", "KB", "MB", "GB", "TB"};

void printLine(const std::string& line) { std::cout << line << '\n' << std::flush; }

// log(0) is minus infinity, which no integer can express: zero bytes use the smallest unit.
unsigned unitFor(std::uint64_t bytes) {
    if (bytes == 0) return 0;
    const double exponent = std::floor(std::log(static_cast<double>(bytes)) / logOf1024);
    return std::min(static_cast<unsigned>(exponent), static_cast<unsigned>(unitNames.size() - 1));
}

}  // namespace

void printSummary(const std::vector<CaptureRecord>& captures, bool asPlist) {
    if (asPlist) return printSummaryPlist(captures);
    printLine("Capture volume contains " + std::to_string(captures.size()) +
              (captures.size() == 1 ? " capture:" : " captures:"));
    for (const auto& capture : captures) {
        printLine("----");
        printLine("path: " + capture.path);
        printLine("totalbytes: " + formatByteSize(capture.size));
    }
}

void printSummaryPlist(const std::vector<CaptureRecord>& captures) {
    // Programs depend on these exact bytes: an empty first line, and the public and system identifier inside one pair
    // of quotes.
    std::cout << "\n"
                 "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                 "<!DOCTYPE plist PUBLIC \"-//Vexlor//DTD PLIST 1.0//EN"
                 "http://www.vexlor.com/DTDs/PropertyList-1.0.dtd\">\n"
                 "<plist version=\"1.0\">\n"
                 "    <array>\n";
    for (const auto& capture : captures)
        std::cout << "        <dict>\n"
                     "            <key>path</key>\n"
                     "            <string>"
                  << capture.path
                  << "</string>\n"
                     "            <key>totalbytes</key>\n"
                     "            <string>"
                  << capture.size
                  << "</string>\n"
                     "        </dict>\n";
    std::cout << "    </array>\n"
                 "</plist>\n"
              << std::flush;
}

std::string formatByteSize(std::uint64_t bytes) {
    const unsigned unit = unitFor(bytes);
    // Rounded to single precision, as in earlier versions: people and programs compare these sizes with the ones shown
    // then.
    const double value = static_cast<double>(static_cast<float>(bytes)) / std::pow(2.0, 10.0 * unit);
    std::array<char, 99> text{};
    std::snprintf(text.data(), text.size(), "%.2f%s", value, unitNames[unit]);
    return text.data();
}

bool cleanupCaptures(RunOptions& options) {
    for (const auto& capture : listCaptures(options)) {
        logInfo("removing " + capture.path);
        if (!std::filesystem::remove(capture.path)) logWarning("error when cleaning up " + capture.path);
    }
    return true;
}

}  // namespace tarnwick
