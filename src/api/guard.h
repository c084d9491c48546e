// The one way into the library from C: runs a call and turns every exception
// into the export's failure result, so none crosses the C boundary.
#pragma once

#include <new>
#include <type_traits>

namespace frfcam::api {

// Calls f() and returns its result; std::bad_alloc gives `on_memory`, any
// other exception `on_failure`.
template <class F, class R = std::invoke_result_t<F>>
R Guard(F&& f, R on_memory, R on_failure) noexcept {
  try {
    return f();
  } catch (const std::bad_alloc&) {
    return on_memory;
  } catch (...) {
    return on_failure;
  }
}

// For exports without a result: exceptions are swallowed.
template <class F>
void GuardVoid(F&& f) noexcept {
  try {
    f();
  } catch (...) {
  }
}

}  // namespace frfcam::api
