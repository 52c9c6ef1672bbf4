/// What a lock guards, said so that the compiler checks it: Clang's thread-safety analysis reads these, other
/// compilers skip them. `./run-tests --lint` builds everything with it.
///
///   int m_iCount GUARDED_BY(m_mutex) = 0;      only touched with m_mutex held
///   void _Add(int n) REQUIRES(m_mutex);        the caller holds it
///   void Add(int n) EXCLUDES(m_mutex);         the caller must not hold it
///   m_cond.Wait(m_mutex, [this]() REQUIRES(m_mutex) { return m_iCount > 0; });
#pragma once

#if defined(__clang__)
#define QV_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define QV_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(name) QV_THREAD_ATTRIBUTE(capability(name))
#define SCOPED_CAPABILITY QV_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(mutex) QV_THREAD_ATTRIBUTE(guarded_by(mutex))
#define REQUIRES(...) QV_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) QV_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) QV_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) QV_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define RETURN_CAPABILITY(mutex) QV_THREAD_ATTRIBUTE(lock_returned(mutex))
#define NO_THREAD_SAFETY_ANALYSIS QV_THREAD_ATTRIBUTE(no_thread_safety_analysis)
