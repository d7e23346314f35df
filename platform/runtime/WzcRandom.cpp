// Wzc::getRand on getrandom(2).
#include "runtime/WzcRandom.h"

#include <sys/random.h>

#include <cerrno>
#include <cstring>

#include "runtime/FXString.h"

namespace Wzc {

void getRand(void* buffer, int length) {
  if (length < 0 || (buffer == nullptr && length > 0))
    throw WzException(FXString::Format("getRand: invalid buffer of length %d", length));
  auto* out = static_cast<unsigned char*>(buffer);
  size_t remaining = static_cast<size_t>(length);
  while (remaining > 0) {
    ssize_t got = getrandom(out, remaining, 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      const int error = errno;
      char text[256];
      throw WzException(FXString::Format("getrandom failed: %s",
                                         strerror_r(error, text, sizeof text)));
    }
    out += got;
    remaining -= static_cast<size_t>(got);
  }
}

}  // namespace Wzc
