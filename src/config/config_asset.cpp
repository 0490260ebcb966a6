#include "config/config_asset.h"

namespace tarnwick {

std::string fetchConfigAsset() {
    return {};  // no asset service is linked yet: the built-in configuration holds
}

}  // namespace tarnwick
