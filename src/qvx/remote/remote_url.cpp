#include "qvx/remote/remote_url.h"

#include <strings.h>

#include <algorithm>

namespace tarnwick::qvx {

namespace {

bool beginsWith(std::string_view text, std::string_view scheme) {
    return text.size() >= scheme.size() && ::strncasecmp(text.data(), scheme.data(), scheme.size()) == 0;
}

// A name, or a number in brackets, and a port.
bool isHost(std::string_view text) {
    const std::size_t colon = text.find(':', text.starts_with('[') ? text.find(']') : 0);
    return colon == std::string_view::npos || text.find_first_not_of("0123456789", colon + 1) == std::string_view::npos;
}

}  // namespace

bool isUrl(std::string_view name) { return beginsWith(name, "http://") || isSecureUrl(name); }

bool isSecureUrl(std::string_view name) { return beginsWith(name, "https://"); }

std::string printableUrl(std::string_view url) {
    url = url.substr(0, url.find_first_of("?#"));
    const std::size_t begin = url.find("//") + 2;
    const std::string_view scheme = url.substr(0, begin);
    const std::string_view address = url.substr(begin);
    const std::string_view authority = address.substr(0, address.find('/'));
    // libcurl lets the user end at the last @ before the path. Without one, a password with a slash may be cut here.
    const std::size_t at = authority.rfind('@');
    if (at == std::string_view::npos && !isHost(authority)) return std::string(scheme);
    return std::string(scheme).append(address.substr(at == std::string_view::npos ? 0 : at + 1));
}

std::string withoutSecrets(std::string_view text) {
    std::string shown;
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find(' '));
        shown += isUrl(word) ? printableUrl(word) : std::string(word);
        text.remove_prefix(word.size());
        const std::size_t blanks = std::min(text.find_first_not_of(' '), text.size());
        shown += text.substr(0, blanks);
        text.remove_prefix(blanks);
    }
    return shown;
}

}  // namespace tarnwick::qvx
