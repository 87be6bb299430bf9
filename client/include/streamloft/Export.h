// Symbol visibility of the host library's public classes.
#pragma once

#if defined(SLF_OVERLAY_CLIENT_BUILDING)
#define SLF_OVERLAY_EXPORT __attribute__((visibility("default")))
#else
#define SLF_OVERLAY_EXPORT
#endif
