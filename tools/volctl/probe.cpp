#include "probe.h"

#include <blkid/blkid.h>

#include <cstring>
#include <memory>

#include "file_systems.h"

namespace tarnwick {

namespace {

using BlkidProbe = std::unique_ptr<struct blkid_struct_probe, FreeWith<blkid_free_probe>>;

BlkidProbe newProbe(int descriptor) {
    BlkidProbe probe(blkid_new_probe());
    if (probe && blkid_probe_set_device(probe.get(), descriptor, 0, 0) != 0) probe.reset();
    return probe;
}

std::string value(blkid_probe probe, const char* name) {
    const char* data = nullptr;
    std::size_t size = 0;
    if (blkid_probe_lookup_value(probe, name, &data, &size) != 0 || !data) return {};
    return {data, strnlen(data, size)};
}

std::string lowerCase(std::string text) {
    for (auto& letter : text)
        if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
    return text;
}

Content contentOf(const std::string& type, const std::string& usage) {
    const auto known = fileSystem(type).usage;
    if (usage == "crypto") return Content::encrypted;
    if (known == Usage::swap) return Content::swap;
    return usage == "filesystem" && known != Usage::poolMember ? Content::fileSystem : Content::member;
}

void probeContent(ProbeAnswer& answer, int descriptor) {
    const auto probe = newProbe(descriptor);
    if (!probe) return;
    blkid_probe_enable_superblocks(probe.get(), 1);
    blkid_probe_set_superblocks_flags(probe.get(),
                                      BLKID_SUBLKS_LABEL | BLKID_SUBLKS_UUID | BLKID_SUBLKS_TYPE | BLKID_SUBLKS_USAGE);
    const int result = blkid_do_safeprobe(probe.get());
    if (result == 1) answer.content = Content::nothing;
    if (result != 0) return;  // an error, or the signatures of two systems
    answer.type = value(probe.get(), "TYPE");
    answer.uuid = value(probe.get(), "UUID");
    answer.label = value(probe.get(), "LABEL");
    answer.content = contentOf(answer.type, value(probe.get(), "USAGE"));
}

// A separate probe: a problem with the content must not hide the type of the partition.
void probePartitionEntry(ProbeAnswer& answer, int descriptor) {
    const auto probe = newProbe(descriptor);
    if (!probe) return;
    blkid_probe_enable_superblocks(probe.get(), 0);
    blkid_probe_enable_partitions(probe.get(), 1);
    blkid_probe_set_partitions_flags(probe.get(), BLKID_PARTS_ENTRY_DETAILS);
    if (blkid_do_safeprobe(probe.get()) != 0) return;
    answer.partitionType = lowerCase(value(probe.get(), "PART_ENTRY_TYPE"));
    answer.partitionUuid = value(probe.get(), "PART_ENTRY_UUID");
    answer.partitionName = value(probe.get(), "PART_ENTRY_NAME");
}

}  // namespace

ProbeAnswer probeDevice(const BlockDevice& device) {
    ProbeAnswer answer;
    const auto opened = openDevice(device);
    if (!opened) return answer;
    probeContent(answer, opened->get());
    probePartitionEntry(answer, opened->get());
    return answer;
}

}  // namespace tarnwick
