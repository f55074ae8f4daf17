#include "Kernel/ErrorNumber.h"

#include <errno.h>
#include <string.h>

namespace Kernel {

bool isDefinedErrorNumber(int error) noexcept { return error > 0 && ::strerrordesc_np(error) != nullptr; }

int highestErrorNumber() noexcept { return EHWPOISON; }

}  // namespace Kernel
