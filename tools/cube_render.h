// Opening a capture and rendering its cube as the commands do it: one line
// per failure, progress on stderr, Ctrl-C cancelling. Shared by `render`,
// `map` and `modes`.
#pragma once

#include <atomic>
#include <string>

#include "frfcam/frfcam.h"

namespace frfcam::cli {

// An FrfMapCalcs object through the exported functions, deleted on scope
// exit. Throws CommandError when it cannot be created.
struct Calcs {
  Calcs();
  ~Calcs();
  Calcs(const Calcs&) = delete;
  Calcs& operator=(const Calcs&) = delete;
  ::FrfMapCalcs* c;
};

// OpenCube on `header`; throws CommandError saying why it failed.
void OpenCapture(::FrfMapCalcs* c, const std::string& header);

// Ctrl-C for the lifetime of one command: cancels the render running in
// RenderWithProgress and sets cancelled(), which longer computations poll.
// The previous handler is restored on scope exit. std::signal rather than
// sigaction, which Windows lacks; the handler only stores to atomics.
class InterruptScope {
 public:
  InterruptScope();
  ~InterruptScope();
  InterruptScope(const InterruptScope&) = delete;
  InterruptScope& operator=(const InterruptScope&) = delete;
  // Set once Ctrl-C was pressed within the scope.
  static const std::atomic<bool>* cancelled();

 private:
  void (*previous_)(int);
};

struct RenderSummary {
  unsigned width = 0, height = 0, bins = 0;
  double seconds = 0.0;
};

// Renders the cube of the capture `header` on the object `c` (opened on it),
// with progress on stderr behind `label` ("" for none): a bar on a
// terminal, a line per ten percent otherwise. 100 % is shown only once the
// render returned success, since the library counts a block when it is
// transformed and its last writes can still fail.
//
// Missing frame data is a CommandError before anything is written. Ctrl-C
// (within an InterruptScope) cancels: a line saying what the cancelled cube
// left on disk and how to remove it (or, with `clean_on_cancel`, its cube
// files are removed), then ExitWith{130}. A failed write or allocation is a
// CommandError.
RenderSummary RenderWithProgress(::FrfMapCalcs* c, const std::string& header, const char* label,
                                 bool clean_on_cancel = false);

// Throws CommandError naming the first frame data file of the capture
// `header` that is missing, and the folder where it was looked for.
void RequireFrameData(const std::string& header);

// The same display of progress for other long jobs: Show(0..100) behind
// `label`, and a line end (on a terminal) once done.
class ProgressDisplay {
 public:
  explicit ProgressDisplay(const char* label);
  ~ProgressDisplay();
  ProgressDisplay(const ProgressDisplay&) = delete;
  ProgressDisplay& operator=(const ProgressDisplay&) = delete;
  void Show(int percent);
};

}  // namespace frfcam::cli
