// The addresses of archives on a server.
#pragma once

#include <string>
#include <string_view>

namespace tarnwick::qvx {

// Whether the name of an archive is an address: of https, or of http, which is refused later.
bool isUrl(std::string_view name);
bool isSecureUrl(std::string_view name);

// The address for people, without what may be secret: a user with a password, and the query, which may be a signature.
std::string printableUrl(std::string_view url);

// The text, with each word of it that is an address in that form.
std::string withoutSecrets(std::string_view text);

}  // namespace tarnwick::qvx
