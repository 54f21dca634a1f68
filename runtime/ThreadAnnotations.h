// Clang's thread-safety attributes under short names. They cost nothing and are checked by the lint stage.
#pragma once

#if defined(__clang__)
#define THREAD_ANNOTATION(x) __attribute__((x))
#else
#define THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(name) THREAD_ANNOTATION(capability(name))
#define SCOPED_CAPABILITY THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(lock) THREAD_ANNOTATION(guarded_by(lock))
#define PT_GUARDED_BY(lock) THREAD_ANNOTATION(pt_guarded_by(lock))
#define ACQUIRED_BEFORE(...) THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define REQUIRES(...) THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RETURN_CAPABILITY(lock) THREAD_ANNOTATION(lock_returned(lock))
#define ASSERT_CAPABILITY(lock) THREAD_ANNOTATION(assert_capability(lock))
#define NO_THREAD_SAFETY_ANALYSIS THREAD_ANNOTATION(no_thread_safety_analysis)
