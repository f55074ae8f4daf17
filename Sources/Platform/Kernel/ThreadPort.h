// The calling thread's kernel port number.
#pragma once

#include <cstdint>

namespace Kernel {

/// The number that names the calling thread in the kernel, as log records show
/// it; on Linux the thread id (gettid). Differs between the live threads of all
/// processes. Callable from any thread.
uint32_t threadPort() noexcept;

}  // namespace Kernel
