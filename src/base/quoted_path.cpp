#include "base/quoted_path.h"

#include <iomanip>
#include <sstream>

namespace tarnwick {

std::string quotedPath(const std::filesystem::path& path) {
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << std::quoted(path.native());
    return text.str();
}

}  // namespace tarnwick
