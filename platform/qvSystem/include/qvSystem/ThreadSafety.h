/// Clang's thread-safety attributes under our own names; other compilers ignore them.
#ifndef QVSYSTEM_THREADSAFETY_H
#define QVSYSTEM_THREADSAFETY_H

/// The attribute `x` of clang; nothing for other compilers.
#if defined(__clang__)
#define QV_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define QV_THREAD_ATTRIBUTE(x)
#endif

/// A class whose objects are locks.
#define QV_CAPABILITY(x) QV_THREAD_ATTRIBUTE(capability(x))
/// A class whose objects hold a lock for as long as they live.
#define QV_SCOPED_CAPABILITY QV_THREAD_ATTRIBUTE(scoped_lockable)
/// A field that is touched with the lock `x` held only.
#define QV_GUARDED_BY(x) QV_THREAD_ATTRIBUTE(guarded_by(x))
/// A pointer whose target is accessed only with the lock `x` held.
#define QV_PT_GUARDED_BY(x) QV_THREAD_ATTRIBUTE(pt_guarded_by(x))
/// A function whose caller holds the locks.
#define QV_REQUIRES(...) QV_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
/// A function whose caller does not hold the locks.
#define QV_EXCLUDES(...) QV_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
/// A function that takes the locks, and leaves them held.
#define QV_ACQUIRE(...) QV_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
/// A function that releases the locks.
#define QV_RELEASE(...) QV_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
/// A function that is not looked at: it holds its locks in a way that cannot be told.
#define QV_NO_THREAD_SAFETY_ANALYSIS QV_THREAD_ATTRIBUTE(no_thread_safety_analysis)

#endif
