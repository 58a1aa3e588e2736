// Marks the declarations that the shared library exports; everything else is
// hidden.
#pragma once

// A class or function that hosts use.
#define REACHABILITY_CACHE_EXPORT __attribute__((visibility("default")))
// A private member of an exported class: hosts cannot call it, so the library
// does not export it either.
#define REACHABILITY_CACHE_NO_EXPORT __attribute__((visibility("hidden")))
