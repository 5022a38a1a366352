#pragma once

/// Clang's thread-safety analysis (clang.llvm.org/docs/ThreadSafetyAnalysis.html) under its usual names; g++ reads nothing. They go with
/// Mutex.h, whose types are what the analysis can follow. Only .h and .cpp files of ours include this, so the short names harm nobody.
#if defined(__clang__)
#define KESTRINE_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KESTRINE_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(what) KESTRINE_THREAD_ANNOTATION(capability(what))
#define SCOPED_CAPABILITY KESTRINE_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(lock) KESTRINE_THREAD_ANNOTATION(guarded_by(lock))
#define PT_GUARDED_BY(lock) KESTRINE_THREAD_ANNOTATION(pt_guarded_by(lock))
#define ACQUIRED_BEFORE(...) KESTRINE_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) KESTRINE_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define REQUIRES(...) KESTRINE_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) KESTRINE_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) KESTRINE_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) KESTRINE_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) KESTRINE_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ASSERT_CAPABILITY(...) KESTRINE_THREAD_ANNOTATION(assert_capability(__VA_ARGS__))
#define RETURN_CAPABILITY(lock) KESTRINE_THREAD_ANNOTATION(lock_returned(lock))
#define NO_THREAD_SAFETY_ANALYSIS KESTRINE_THREAD_ANNOTATION(no_thread_safety_analysis)
