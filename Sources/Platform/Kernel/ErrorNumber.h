// Facts about the system's error numbers (errno values).
#pragma once

namespace Kernel {

/// True when the system defines `error` (it has a name such as ENOENT).
bool isDefinedErrorNumber(int error) noexcept;

/// The largest error number the system defines.
int highestErrorNumber() noexcept;

}  // namespace Kernel
