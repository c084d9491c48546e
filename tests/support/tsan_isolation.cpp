// ThreadSanitizer cannot see the synchronisation inside the worker pool's
// own (uninstrumented) library, so every hand-off through the pool reads as
// a race. Under ThreadSanitizer the pool is therefore held to one thread: a
// render's transform tasks then run when the calling thread waits for them,
// and what is checked is the library's own concurrency: the cancel flag set
// from another thread, progress, and renders and reads of one cube on
// different objects at once.
#if defined(__SANITIZE_THREAD__)
#include <tbb/global_control.h>

namespace {
tbb::global_control g_pool_on_calling_thread(tbb::global_control::max_allowed_parallelism, 1);
}  // namespace
#endif
