#include "qvx/crypto/secret_key.h"

#include <openssl/crypto.h>

namespace tarnwick::qvx {

SecretKey::~SecretKey() { OPENSSL_cleanse(bytes.data(), bytes.size()); }

}  // namespace tarnwick::qvx
