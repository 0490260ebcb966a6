// The assets installed on this machine, and the last catalog that was accepted.
//
//   <store>/.catalog                        the catalog with its signature
//   <store>/.serial                         the serial number of the last catalog that was accepted
//   <store>/<type>/<content>.<mastered>/    an installed version; complete as soon as it has this name
//   <store>/<type>/.staging.XXXXXX/         a version in progress, locked by the process that makes it
//
// A kill at any moment leaves the old state or the new one: everything is written under another name, synced and
// renamed. Any number of processes may use a store at once. A process locks the store for renames, never during
// a transfer.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/handle.h"
#include "platform/assets/asset_catalog.h"
#include "platform/assets/asset_transfer.h"

namespace tarnwick {

// An asset that is not installed yet. The destructor removes it unless it was installed.
class StagedAsset {
public:
    StagedAsset(std::filesystem::path folder, FileDescriptor lock);
    StagedAsset(StagedAsset&&) = default;
    ~StagedAsset();

    // Writes what `transfer` passes to the sink as one file. Size and digest must be those in the catalog; the sink
    // fails at the first byte that exceeds the size. On success the file is written and synced.
    AssetStatus addFile(const AssetFile& file, const std::function<AssetStatus(const ByteSink&)>& transfer);

private:
    friend class AssetStore;
    std::filesystem::path folder_;
    FileDescriptor lock_;  // on the folder: without it, another process would remove the folder as abandoned
};

class AssetStore {
public:
    explicit AssetStore(std::filesystem::path root) : root_(std::move(root)) {}

    // In no particular order. A folder that is a link, belongs to another user or can be written by others is not an
    // installed version; nor is a folder without a file.
    [[nodiscard]] AssetResult<std::vector<AssetVersion>> listInstalled(const std::string& type) const;

    // Whether the version is installed and complete: every file of the asset has the size and digest in the catalog.
    // For an asset without files, being installed is enough.
    [[nodiscard]] bool isComplete(const Asset& asset) const;

    // The folder of the version when it is installed.
    [[nodiscard]] std::filesystem::path folderOf(const Asset& asset) const;

    // The catalog that was stored last. It is not verified here: the caller verifies it again.
    [[nodiscard]] std::optional<SignedCatalog> storedCatalog() const;

    // Stores the catalog unless its serial is lower than the last one accepted. That serial is stored on its own, so it
    // counts even if the catalog was deleted.
    [[nodiscard]] AssetStatus storeCatalog(const SignedCatalog& received, std::int64_t serial) const;

    // Creates an empty staging folder next to the installed versions, and removes those that killed processes left.
    [[nodiscard]] AssetResult<StagedAsset> stage(const std::string& type) const;

    // Renames the staged folder to that of the asset, unless a higher version is installed. When another process has
    // installed the same version in the meantime, its files stay. Keeps the newest two versions.
    [[nodiscard]] AssetStatus install(const Asset& asset, StagedAsset& staged) const;

private:
    std::filesystem::path root_;
};

}  // namespace tarnwick
