#include "qvx/crypto/openssl_environment.h"

#include <openssl/crypto.h>

#include <cstdlib>
#include <initializer_list>

namespace tarnwick::qvx {

void ignoreOpensslEnvironment() {
    // Each of them can name a shared object that OpenSSL loads. libcryptsetup loads the provider "legacy", so without a
    // configuration file the folder of the modules still matters.
    for (const char* variable : {"OPENSSL_CONF", "OPENSSL_MODULES", "OPENSSL_ENGINES"}) ::unsetenv(variable);
    OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
}

}  // namespace tarnwick::qvx
