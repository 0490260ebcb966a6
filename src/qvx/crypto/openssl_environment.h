// Keeps OpenSSL away from files that the caller of a program names.
#pragma once

namespace tarnwick::qvx {

// Removes OPENSSL_CONF, OPENSSL_MODULES and OPENSSL_ENGINES from the environment, and makes OpenSSL read no
// configuration file, neither that of the caller nor that of the system. A program calls this first, before it starts a
// thread and before it calls a library that uses OpenSSL: only the first initialisation of OpenSSL counts.
void ignoreOpensslEnvironment();

}  // namespace tarnwick::qvx
