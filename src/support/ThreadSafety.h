// Which lock guards what, for the compiler to check (clang's -Wthread-safety; nothing for others).
#pragma once

#if defined(__clang__)
#define VOX_ANNOTATE(what) __attribute__((what))
#else
#define VOX_ANNOTATE(what)
#endif

// A class of locks, and one that holds a lock for a scope.
#define CAPABILITY(name) VOX_ANNOTATE(capability(name))
#define SCOPED_CAPABILITY VOX_ANNOTATE(scoped_lockable)
// A field that is looked at, and changed, with this lock held.
#define GUARDED_BY(lock) VOX_ANNOTATE(guarded_by(lock))
// A function that is called with this lock held.
#define REQUIRES(...) VOX_ANNOTATE(requires_capability(__VA_ARGS__))
// A function that takes the lock (its own, without an argument), tries to, gives it back.
#define ACQUIRE(...) VOX_ANNOTATE(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) VOX_ANNOTATE(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) VOX_ANNOTATE(release_capability(__VA_ARGS__))
// What the compiler cannot follow; a comment says why it is right.
#define NO_THREAD_SAFETY_ANALYSIS VOX_ANNOTATE(no_thread_safety_analysis)
