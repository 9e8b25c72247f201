#pragma once

#include "platform/base/Error.h"

namespace qx::kernel {

/// The errno that tells a program why its file could not be provided: one that the kernel can
/// deliver (ENOSPC, EDQUOT, EPERM, EAGAIN or EIO). The provider's error decides, or the one
/// underneath.
int errnoFor(const Error& error);

}  // namespace qx::kernel
