// Reading and changing the consent record of a mounted volume.
//
// The owner of a volume may have write access to every folder of it. No symbolic link is followed below the mount
// point, and no other mount is entered.
#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

#include "plist/property_list.h"

namespace tarnwick {

// Why a record could not be read or changed, as a text for people without the mount point.
class RecordError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The record, or nothing when there is none. Throws RecordError when there is something that is no readable record.
std::optional<PropertyListDictionary> readConsentRecord(const std::string& mountPoint);

// Applies `change` to the record, or to an empty one, and replaces it on disk. Folders that are missing are made. On
// return everything is synced; after a RecordError the record is as it was, and nothing new is left beside it. A kill
// leaves the old record too, but perhaps also new folders and a temporary file.
void changeConsentRecord(const std::string& mountPoint, const std::function<void(PropertyListDictionary&)>& change);

}  // namespace tarnwick
