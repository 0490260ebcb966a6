// POSIX access lists in their three forms: in the archive, in an extended attribute of the kernel, and as text.
#pragma once

#include <sys/types.h>

#include <string_view>

#include "qvx/format/entry.h"
#include "qvx/format/wire.h"

namespace tarnwick::qvx {

// Whether a list in an archive may have these entries, in this order.
bool isAccessList(const AccessList& list);

// Whether the list says the same as the permission bits of `mode`.
bool isModeAlone(const AccessList& list, mode_t mode);

// Whether a file of this type may have these lists.
bool areListsOf(EntryType type, const AccessLists& lists);

void encodeAccessList(const AccessList& list, WireWriter& out);
AccessList decodeAccessList(WireReader& in);  // calls in.fail() on an invalid list

// The value of the attribute. An empty value is an empty list. None for a list that an archive cannot have.
std::optional<AccessList> parseKernelAccessList(std::string_view value);
std::string kernelAccessList(const AccessList& list);

// For example "user::rwx\nuser:1000:r-x", without a newline at the end.
std::string accessListText(const AccessList& list);

}  // namespace tarnwick::qvx
