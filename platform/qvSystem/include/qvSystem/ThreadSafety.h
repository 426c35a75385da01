/// Clang's thread-safety attributes under our own names; other compilers ignore them.
#ifndef QVSYSTEM_THREADSAFETY_H
#define QVSYSTEM_THREADSAFETY_H

#if defined(__clang__)
#define QV_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define QV_THREAD_ATTRIBUTE(x)
#endif

#define QV_CAPABILITY(x) QV_THREAD_ATTRIBUTE(capability(x))
#define QV_SCOPED_CAPABILITY QV_THREAD_ATTRIBUTE(scoped_lockable)
#define QV_GUARDED_BY(x) QV_THREAD_ATTRIBUTE(guarded_by(x))
#define QV_PT_GUARDED_BY(x) QV_THREAD_ATTRIBUTE(pt_guarded_by(x))
#define QV_REQUIRES(...) QV_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define QV_EXCLUDES(...) QV_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define QV_ACQUIRE(...) QV_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define QV_RELEASE(...) QV_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define QV_NO_THREAD_SAFETY_ANALYSIS QV_THREAD_ATTRIBUTE(no_thread_safety_analysis)

#endif
