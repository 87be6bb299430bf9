// The platform library's own log module "npl".
#pragma once

#include <cstdint>

// Index of the module "npl", registered on first use with its error and
// warning flags on (levels 0 and 1) and info and debug off.
int32_t NplDebugModule();
