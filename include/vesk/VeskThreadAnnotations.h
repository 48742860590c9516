#pragma once

/**
 * Clang's thread-safety attributes: which lock guards a member, which lock a caller must hold.
 * They document and, where the standard library's mutex is annotated too, are checked; with any
 * other compiler they vanish.
 */
#if defined(__clang__)
#define VESK_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define VESK_THREAD_ATTRIBUTE(x)
#endif

/** The member may be touched only while the lock is held. */
#define VESK_GUARDED_BY(lock) VESK_THREAD_ATTRIBUTE(guarded_by(lock))
/** The caller must hold the lock. */
#define VESK_REQUIRES(lock) VESK_THREAD_ATTRIBUTE(requires_capability(lock))
/** The caller must not hold the lock: the operation takes it itself. */
#define VESK_EXCLUDES(lock) VESK_THREAD_ATTRIBUTE(locks_excluded(lock))
/** The operation returns a reference to the lock. */
#define VESK_RETURNS_LOCK(lock) VESK_THREAD_ATTRIBUTE(lock_returned(lock))
/** For the body of an operation whose lock has another name inside than outside. */
#define VESK_NO_LOCK_ANALYSIS VESK_THREAD_ATTRIBUTE(no_thread_safety_analysis)
