#include "Security/SecRandom.h"

#include <openssl/rand.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "Security/SecBase.h"

namespace Security {

int SecRandomCopyBytes(SecRandomRef rnd, size_t count, void* bytes) {
    if (rnd != kSecRandomDefault || (bytes == nullptr && count > 0)) return errSecParam;
    auto* out = static_cast<unsigned char*>(bytes);
    for (size_t done = 0; done < count;) {
        const size_t chunk = std::min<size_t>(count - done, INT_MAX);
        if (RAND_bytes(out + done, static_cast<int>(chunk)) != 1) {
            std::memset(out, 0, count);
            return -1;
        }
        done += chunk;
    }
    return errSecSuccess;
}

}  // namespace Security
