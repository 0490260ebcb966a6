#include "qvx/remote/remote_url.h"

#include <strings.h>

namespace tarnwick::qvx {

namespace {

bool beginsWith(std::string_view text, std::string_view scheme) {
    return text.size() >= scheme.size() && ::strncasecmp(text.data(), scheme.data(), scheme.size()) == 0;
}

}  // namespace

bool isUrl(std::string_view name) { return beginsWith(name, "http://") || isSecureUrl(name); }

bool isSecureUrl(std::string_view name) { return beginsWith(name, "https://"); }

std::string printableUrl(std::string_view url) {
    url = url.substr(0, url.find_first_of("?#"));
    const std::size_t host = url.find("//") + 2;
    // libcurl lets the user end at the last @ before the path.
    const std::size_t at = url.substr(0, url.find('/', host)).rfind('@');
    std::string text(url.substr(0, host));
    return text.append(url.substr(at == std::string_view::npos ? host : at + 1));
}

}  // namespace tarnwick::qvx
