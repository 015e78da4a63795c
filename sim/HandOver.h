// SPDX-License-Identifier: MIT
#pragma once
// umockdev's worker thread gets its work through GLib: signal handlers of the
// ioctl handler, sources attached to its context. GLib's locks are invisible
// to ThreadSanitizer, so the hand-over is marked on both sides; what the
// giving thread wrote before it then counts as seen by the worker. Without
// ThreadSanitizer these do nothing.

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QKSIM_TSAN 1
#endif
#endif
#if !defined(QKSIM_TSAN) && defined(__SANITIZE_THREAD__)
#define QKSIM_TSAN 1
#endif

#ifdef QKSIM_TSAN
#include <sanitizer/tsan_interface.h>
#endif

namespace qksim {

// On the giving side, once `token` and what it leads to are written.
inline void HandOver(void* token)
{
#ifdef QKSIM_TSAN
    __tsan_release(token);
#else
    (void)token;
#endif
}

// On the worker, before `token` is first read.
inline void TakeOver(void* token)
{
#ifdef QKSIM_TSAN
    __tsan_acquire(token);
#else
    (void)token;
#endif
}

} // namespace qksim
