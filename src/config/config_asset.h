// The configuration asset: a newer configuration than the one built into the executable.
#pragma once

#include <string>

namespace tarnwick {

// The local directory of the newest configuration asset, or the empty text when there is none.
std::string fetchConfigAsset();

}  // namespace tarnwick
