// Reading the API's certificate and key as the texts that go to the network process.
#ifndef ORV_NET_PEM_H_
#define ORV_NET_PEM_H_

#include <span>

#include "common/secret.h"

namespace orv {

// Reads the whole file: 1..kIpcMaxPem bytes without a NUL. What they say is the network process's
// business. 0; -1 with one message and `out` as it was; every buffer used is wiped.
[[nodiscard]] int read_pem_file(const char* path, SecretBytes& out, std::span<char> err);

}  // namespace orv

#endif  // ORV_NET_PEM_H_
