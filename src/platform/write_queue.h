// Writes in flight: many positioned writes to files switched to direct writes
// (File::EnableDirect) queued to the OS at once, so that the disk always has
// work while the caller computes, with no thread of the library's own.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

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
  // write stays within the file's current size (File::Reserve), so it never
  // extends the file, and below the process's file-size limit as it is now
  // (the OS checks the offset against it, not the file's size, and would
  // raise its signal). Blocks while `depth` writes are in flight. False
  // (nothing queued) when the queue is not started, the arguments break
  // these rules or the OS refuses the write; the caller then writes with
  // File::WriteAt, which reports what it could not write.
  bool Submit(const File& file, std::uint64_t offset, const void* data, std::size_t size,
              unsigned tag);

  // Waits until no write of `tag` is in flight. True when every write of
  // `tag` finished whole since the last Wait(tag); false when any failed or
  // was short (a disk error; the bytes on disk are then undefined).
  bool Wait(unsigned tag);

  // Test-only, process-wide: disk errors for tests, which have no failing
  // disk. The `nth` write that any queue takes from now on (1: the next one)
  // ends short by kDirectWriteAlignment bytes (kShort: the OS really writes
  // that much less) or fails (kFailed); kNone, or a new call, disarms.
  // Otherwise harmless: a few relaxed atomic operations per write.
  enum class Fault { kNone, kShort, kFailed };
  static void InjectFault(Fault fault, std::uint64_t nth);
  // Test-only: writes that queues of this process have taken so far.
  static std::uint64_t TakenWrites();
  // Test-only, process-wide: while on, queues hand writes to the OS only
  // when they next wait for one, as a slow disk reads the caller's memory
  // late: memory reused before Wait(tag) then reaches the disk.
  static void DeferWrites(bool on);

 private:
  // One write as the OS takes it; `data` carries the size and tag to Reap.
  struct Request {
    std::intptr_t fd;
    std::uint64_t address, size, offset, data;
  };
  // Hands `r` to the OS; false when it refuses it.
  bool Hand(const Request& r);
  // Hands the deferred writes (DeferWrites) to the OS; one it refuses counts
  // as a failed write of its tag.
  void HandDeferred();
  // Collects finished writes, waiting for at least `min` of them.
  void Reap(unsigned min);

  unsigned long context_ = 0;  // the OS's queue; 0 when not started
  unsigned depth_ = 0;
  unsigned in_flight_ = 0;  // handed to the OS and not yet collected
  std::vector<Request> deferred_;
  std::array<unsigned, kTags> pending_{};
  std::array<bool, kTags> failed_{};
};

}  // namespace frfcam::platform
