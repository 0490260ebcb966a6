#include "qvx/read/path_hash.h"

namespace tarnwick::qvx {

// std::hash has no key: an archive could choose two paths that it does not distinguish, and one of the entries would be
// left out.
std::uint64_t PathHash::of(std::string_view path) {
    digest_.restart();
    digest_.add(key_);
    digest_.add({reinterpret_cast<const std::uint8_t*>(path.data()), path.size()});
    return getLittleEndian<8>(digest_.finish().data());
}

}  // namespace tarnwick::qvx
