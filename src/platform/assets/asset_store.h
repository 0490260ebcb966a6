// The assets installed on this machine, and the last catalog that was accepted.
//
//   <store>/.catalog                        the catalog with its signature
//   <store>/.serial                         the serial number of the last catalog that was accepted
//   <store>/<type>/<content>.<mastered>/    one installed version, complete from the moment it has this name
//   <store>/<type>/.staging.XXXXXX/         one that is being made, locked by its maker
//
// A kill at any moment leaves the old state or the new: everything is written under another name, synced and renamed.
// Any number of processes may use a store at once; a lock on the store is held for renames, never during a transfer.
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

// An asset on its way into the store. The destructor removes what was not installed.
class StagedAsset {
public:
    StagedAsset(std::filesystem::path folder, FileDescriptor lock);
    StagedAsset(StagedAsset&&) = default;
    ~StagedAsset();

    // Makes one file from what `transfer` gives to the sink. Its size and digest must be the catalog's: the sink
    // refuses the first byte too many. Written and synced when this answers success.
    AssetResult addFile(const AssetFile& file, const std::function<AssetResult(const ByteSink&)>& transfer);

private:
    friend class AssetStore;
    std::filesystem::path folder_;
    FileDescriptor lock_;  // of the folder, so that nobody takes it for a dead process's leftovers
};

class AssetStore {
public:
    explicit AssetStore(std::filesystem::path root) : root_(std::move(root)) {}

    // In no order. A folder that is a link, belongs to a stranger or can be written by others is not an installed
    // version; nor is one without a single file.
    AssetResult listInstalled(const std::string& type, std::vector<AssetVersion>& versions) const;

    // Whether the version is installed and complete: with every file of the asset in the size and digest that its
    // catalog says. For an asset without files being installed is enough.
    [[nodiscard]] bool holdsComplete(const Asset& asset) const;

    // Where the version stands once it is installed.
    [[nodiscard]] std::filesystem::path folderOf(const Asset& asset) const;

    // The catalog kept last. Nothing of it is believed: the caller verifies it again.
    [[nodiscard]] std::optional<SignedCatalog> storedCatalog() const;

    // Keeps the catalog unless its serial is lower than the last one accepted, however long ago that was and whether
    // or not its catalog is still there.
    AssetResult keepCatalog(const SignedCatalog& received, std::int64_t serial) const;

    // Makes an empty place beside the installed versions, and removes what killed processes left.
    AssetResult stage(const std::string& type, std::optional<StagedAsset>& staged) const;

    // Gives the staged files the asset's place, unless a higher version is installed. When another process has
    // installed the same version meanwhile, its files stay. Keeps the newest two versions.
    AssetResult install(const Asset& asset, StagedAsset& staged) const;

private:
    std::filesystem::path root_;
};

}  // namespace tarnwick
