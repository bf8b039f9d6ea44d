// Reading the API's certificate and key as the texts that go to the network process.
#ifndef ORV_NET_PEM_H_
#define ORV_NET_PEM_H_

#include <span>

#include "common/secret.h"

namespace orv {

// Reads the whole file: 1..kIpcMaxPem bytes without a NUL; what they say is not checked. Never
// blocks, whatever the path names. 0; -1 with one message and `out` as it was.
[[nodiscard]] int read_pem_file(const char* path, SecretString& out, std::span<char> err);

}  // namespace orv

#endif  // ORV_NET_PEM_H_
