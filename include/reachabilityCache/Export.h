// Marks the declarations that the shared library exports; everything else is
// hidden.
#pragma once

#if defined(REACHABILITY_CACHE_STATIC_DEFINE)
#define REACHABILITY_CACHE_EXPORT
#else
#define REACHABILITY_CACHE_EXPORT __attribute__((visibility("default")))
#endif
