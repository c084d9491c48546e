// Writes in flight: many positioned writes to files switched to direct writes
// (File::EnableDirect) queued to the OS at once, so that the disk always has
// work while the caller computes, with no thread of the library's own.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/platform.h"

namespace frfcam::platform {

class WriteQueue {
 public:
  // Writes are grouped by a tag (0 .. kTags - 1), typically the buffer they
  // come from, so that a caller can wait for one buffer's writes alone.
  static constexpr unsigned kTags = 4;

  WriteQueue() = default;
  // Waits for every write still in flight: their memory must outlive them.
  ~WriteQueue();
  WriteQueue(const WriteQueue&) = delete;
  WriteQueue& operator=(const WriteQueue&) = delete;

  // Sets up a queue for up to `depth` writes in flight. False where the OS
  // offers none (always on Windows, and under sandboxes that forbid it); the
  // caller then writes with File::WriteAt.
  bool Start(unsigned depth);
  bool started() const { return context_ != 0; }

  // Queues the write of `size` bytes from `data` at byte `offset` of `file`,
  // which must stay open, and `data` unchanged, until Wait(tag) returns.
  // Offset, size and address are multiples of kDirectWriteAlignment, and the
  // write stays within the file's current size (File::Reserve): it never
  // extends the file, so the file-size limit never applies. Blocks while
  // `depth` writes are in flight. False (nothing queued) when the queue is
  // not started, the arguments break these rules or the OS refuses the
  // write; the caller counts that as a failed write.
  bool Submit(const File& file, std::uint64_t offset, const void* data, std::size_t size,
              unsigned tag);

  // Waits until no write of `tag` is in flight. True when every write of
  // `tag` finished whole since the last Wait(tag); false when any failed or
  // was short (a disk error; the bytes on disk are then undefined).
  bool Wait(unsigned tag);

 private:
  // Collects finished writes, waiting for at least `min` of them.
  void Reap(unsigned min);

  unsigned long context_ = 0;  // the OS's queue; 0 when not started
  unsigned depth_ = 0;
  unsigned in_flight_ = 0;
  std::array<unsigned, kTags> pending_{};
  std::array<bool, kTags> failed_{};
};

}  // namespace frfcam::platform
