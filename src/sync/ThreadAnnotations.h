// Lock annotations for clang's -Wthread-safety analysis. They vanish on other
// compilers. Internal: no installed header may use them.
#pragma once

#if defined(__clang__)
#define RC_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define RC_THREAD_ANNOTATION(x)
#endif

#define RC_CAPABILITY(name) RC_THREAD_ANNOTATION(capability(name))
#define RC_SCOPED_CAPABILITY RC_THREAD_ANNOTATION(scoped_lockable)
#define RC_GUARDED_BY(mutex) RC_THREAD_ANNOTATION(guarded_by(mutex))
// The lock order, on a mutex's declaration: a thread that takes it and one
// named here takes the one named here first.
#define RC_ACQUIRED_AFTER(...) RC_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define RC_REQUIRES(...) RC_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define RC_REQUIRES_SHARED(...) RC_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define RC_EXCLUDES(...) RC_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define RC_ACQUIRE(...) RC_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RC_ACQUIRE_SHARED(...) RC_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define RC_RELEASE(...) RC_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RC_RELEASE_SHARED(...) RC_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define RC_TRY_ACQUIRE(...) RC_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RC_TRY_ACQUIRE_SHARED(...) RC_THREAD_ANNOTATION(try_acquire_shared_capability(__VA_ARGS__))
