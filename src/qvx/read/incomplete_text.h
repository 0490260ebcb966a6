// The message about an entry that was incomplete when it was captured.
#pragma once

#include <string>

#include "qvx/format/entry_codec.h"

namespace tarnwick::qvx {

// For example "incomplete when it was captured: bytes 0 to 4095 could not be read". The tail must have `unreadable`.
std::string incompleteText(EntryType type, const EntryTail& tail);

}  // namespace tarnwick::qvx
