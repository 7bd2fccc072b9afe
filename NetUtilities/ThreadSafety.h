#pragma once
// Names for clang's thread-safety attributes. Other compilers see nothing; the clang build checks them
// (-Wthread-safety), and warnings are errors there.

#if defined(__clang__)
#define HALCYD_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define HALCYD_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(x) HALCYD_THREAD_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY HALCYD_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) HALCYD_THREAD_ATTRIBUTE(guarded_by(x))
#define PT_GUARDED_BY(x) HALCYD_THREAD_ATTRIBUTE(pt_guarded_by(x))
#define ACQUIRED_BEFORE(...) HALCYD_THREAD_ATTRIBUTE(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) HALCYD_THREAD_ATTRIBUTE(acquired_after(__VA_ARGS__))
#define REQUIRES(...) HALCYD_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) HALCYD_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) HALCYD_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) HALCYD_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define EXCLUDES(...) HALCYD_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) HALCYD_THREAD_ATTRIBUTE(assert_capability(x))
#define RETURN_CAPABILITY(x) HALCYD_THREAD_ATTRIBUTE(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS HALCYD_THREAD_ATTRIBUTE(no_thread_safety_analysis)
