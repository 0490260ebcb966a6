#include "withheld.h"

#include <algorithm>
#include <array>
#include <string>

namespace tarnwick {

namespace {

enum class Match { anywhere, atEnd, whole };

struct SecretName {
    std::string_view text;  // in lower case
    Match match;
    std::string_view reason;
};

// Makers choose such names freely, so most of the entries are words. Withholding one value too many does less harm than
// sending one password.
constexpr std::array secretNames{
    SecretName{"password", Match::anywhere, "a password"},
    SecretName{"passwd", Match::anywhere, "a password"},
    SecretName{"passphrase", Match::anywhere, "a password"},
    SecretName{"passcode", Match::anywhere, "a password"},
    SecretName{"pswd", Match::anywhere, "a password"},
    SecretName{"pwd", Match::anywhere, "a password"},
    SecretName{"hddp", Match::anywhere, "a disk password"},
    SecretName{"pw", Match::atEnd, "a password"},
    SecretName{"amitsesetup", Match::whole, "set-up passwords"},
    SecretName{"mokpwstore", Match::whole, "a password"},
    SecretName{"mokauth", Match::whole, "the digest of a password"},
    SecretName{"mokdelauth", Match::whole, "the digest of a password"},
    SecretName{"mokxauth", Match::whole, "the digest of a password"},
    SecretName{"mokxdelauth", Match::whole, "the digest of a password"},
    SecretName{"moksb", Match::whole, "a password"},
    SecretName{"mokdb", Match::whole, "a password"},
    SecretName{"productkey", Match::anywhere, "a product key"},
    SecretName{"licensekey", Match::anywhere, "a product key"},
    SecretName{"digitalproductid", Match::anywhere, "a product key"},
    SecretName{"activationkey", Match::anywhere, "a product key"},
    SecretName{"seed", Match::anywhere, "a seed of random numbers"},
    SecretName{"token", Match::anywhere, "a token"},
    SecretName{"secret", Match::anywhere, "a secret"},
    SecretName{"credential", Match::anywhere, "credentials"},
    SecretName{"chap", Match::anywhere, "credentials"},
    SecretName{"wifi", Match::anywhere, "credentials of a network"},
    SecretName{"wlan", Match::anywhere, "credentials of a network"},
    SecretName{"psk", Match::atEnd, "credentials of a network"},
    SecretName{"attempt", Match::anywhere, "credentials of a network disk"},  // each contains its login
    SecretName{"privatekey", Match::anywhere, "a private key"},
    SecretName{"unlockid", Match::anywhere, "an unlocking code"},
};

bool matches(const std::string& name, const SecretName& secret) {
    switch (secret.match) {
        case Match::anywhere: return name.find(secret.text) != std::string::npos;
        case Match::atEnd: return name.ends_with(secret.text);
        case Match::whole: return name == secret.text;
    }
    return true;
}

}  // namespace

std::optional<std::string_view> whySecret(std::string_view name) {
    std::string lower;
    for (const char letter : name)
        if (letter != '_' && letter != '-' && letter != ' ')
            lower += letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
    const auto* found = std::find_if(secretNames.begin(), secretNames.end(),
                                     [&](const SecretName& secret) { return matches(lower, secret); });
    return found == secretNames.end() ? std::nullopt : std::optional(found->reason);
}

}  // namespace tarnwick
