#include "listing.h"

#include <algorithm>
#include <array>
#include <utility>

#include "base/json_string.h"
#include "base/visible_text.h"

namespace tarnwick {

namespace {

std::string shown(const std::string& text) { return text.empty() ? "-" : visibleText(text); }

std::string stateOf(const Volume& volume) {
    if (!volume.exclusionReason.empty()) return "left out: " + volume.exclusionReason;
    if (volume.locked) return "locked";
    return volume.mountPoint.empty() ? "not mounted" : "mounted";
}

std::vector<std::string> rowOf(const Volume& volume) {
    return {shown(volume.container), shown(volume.group),   shown(volume.deviceIdentifier), shown(volume.name),
            shown(volume.role),      sizeText(volume.size), shown(volume.mountPoint),       stateOf(volume)};
}

std::string jsonLine(const Volume& volume) {
    const std::pair<const char*, const std::string&> members[] = {{"container", volume.container},
                                                                  {"group", volume.group},
                                                                  {"device", volume.deviceIdentifier},
                                                                  {"name", volume.name},
                                                                  {"uuid", volume.uuid},
                                                                  {"type", volume.fileSystem},
                                                                  {"role", volume.role},
                                                                  {"mount_point", volume.mountPoint},
                                                                  {"left_out", volume.exclusionReason}};
    std::string line = std::string("{\"locked\": ") + (volume.locked ? "true" : "false");
    if (volume.size != 0) line += ", \"size\": " + std::to_string(volume.size);
    for (const auto& [key, value] : members)
        if (!value.empty()) line += ", " + jsonString(key) + ": " + jsonString(value);
    return line + "}\n";
}

// The width on a terminal, estimated as the number of characters.
std::size_t width(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(
        text.begin(), text.end(), [](char byte) { return (static_cast<unsigned char>(byte) & 0xc0) != 0x80; }));
}

}  // namespace

std::string sizeText(std::uint64_t bytes) {
    static constexpr std::array units{"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes == 0) return "-";
    std::size_t unit = 0;
    std::uint64_t tenths = 0;
    for (; bytes >= 1024 && unit + 1 < units.size(); ++unit) {
        tenths = bytes % 1024 * 10 / 1024;
        bytes /= 1024;
    }
    return std::to_string(bytes) + (unit > 0 ? "." + std::to_string(tenths) : "") + " " + units[unit];
}

std::string alignedTable(const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::size_t> widths(rows.empty() ? 0 : rows.front().size());
    for (const auto& row : rows)
        for (std::size_t column = 0; column < widths.size(); ++column)
            widths[column] = std::max(widths[column], width(row[column]));
    std::string table;
    for (const auto& row : rows) {
        for (std::size_t column = 0; column + 1 < widths.size(); ++column)
            table += row[column] + std::string(widths[column] + 2 - width(row[column]), ' ');
        table += row.back() + "\n";
    }
    return table;
}

std::string volumeTable(const std::vector<Volume>& volumes) {
    std::vector<std::vector<std::string>> rows{
        {"CONTAINER", "GROUP", "DEVICE", "NAME", "ROLE", "SIZE", "MOUNT POINT", "STATE"}};
    std::transform(volumes.begin(), volumes.end(), std::back_inserter(rows), rowOf);
    return alignedTable(rows);
}

std::string volumeJson(const std::vector<Volume>& volumes) {
    std::string lines;
    for (const auto& volume : volumes) lines += jsonLine(volume);
    return lines;
}

}  // namespace tarnwick
