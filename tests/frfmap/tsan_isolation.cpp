// ThreadSanitizer cannot see the synchronisation inside the worker pool's
// own (uninstrumented) library, so every hand-off through the pool reads as
// a race. Under ThreadSanitizer the pool is therefore held to the calling
// thread: what is checked is the library's own concurrency, the reader and
// writer threads of a render, their hand-offs and the cancel flag set from
// another thread.
#if defined(__SANITIZE_THREAD__)
#include <tbb/global_control.h>

namespace {
tbb::global_control g_pool_on_calling_thread(tbb::global_control::max_allowed_parallelism, 1);
}  // namespace
#endif
