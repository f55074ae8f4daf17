#include "Kernel/ThreadPort.h"

#include <unistd.h>

namespace Kernel {

uint32_t threadPort() noexcept { return static_cast<uint32_t>(::gettid()); }

}  // namespace Kernel
