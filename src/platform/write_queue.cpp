#include "platform/write_queue.h"

#include <atomic>

#if !defined(_WIN32)
#include <linux/aio_abi.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#endif

namespace frfcam::platform {

namespace {

// The test-only fault: the number of the write it hits (counted by
// taken_writes, from 1; 0 for none) and its kind.
std::atomic<std::uint64_t> taken_writes{0};
std::atomic<std::uint64_t> fault_at{0};
std::atomic<WriteQueue::Fault> fault_kind{WriteQueue::Fault::kNone};
std::atomic<bool> defer_writes{false};

}  // namespace

void WriteQueue::InjectFault(Fault fault, std::uint64_t nth) {
  fault_at.store(0, std::memory_order_relaxed);
  fault_kind.store(fault, std::memory_order_relaxed);
  if (fault != Fault::kNone && nth != 0) {
    fault_at.store(taken_writes.load(std::memory_order_relaxed) + nth, std::memory_order_relaxed);
  }
}

std::uint64_t WriteQueue::TakenWrites() { return taken_writes.load(std::memory_order_relaxed); }

void WriteQueue::DeferWrites(bool on) { defer_writes.store(on, std::memory_order_relaxed); }

#if defined(_WIN32)

// Windows writes through its cache (File::EnableDirect is false there), so
// there is nothing to queue.
WriteQueue::~WriteQueue() = default;
bool WriteQueue::Start(unsigned) { return false; }
bool WriteQueue::Submit(const File&, std::uint64_t, const void*, std::size_t, unsigned) {
  return false;
}
bool WriteQueue::Wait(unsigned tag) { return tag < kTags; }
bool WriteQueue::Hand(const Request&) { return false; }
void WriteQueue::HandDeferred() {}
void WriteQueue::Reap(unsigned) {}

#else

// Reap counts a write as failed when aio_data has this bit, above the tag's
// (the test-only kFailed).
constexpr std::uint64_t kInjectedFailure = 0x80;

// The kernel's asynchronous I/O, called directly: with files opened for
// direct I/O its writes are queued to the disk without a thread, where the
// POSIX interface would start threads of its own.
WriteQueue::~WriteQueue() {
  if (context_ == 0) return;
  while (in_flight_ > 0 || !deferred_.empty()) Reap(1);
  ::syscall(SYS_io_destroy, static_cast<aio_context_t>(context_));
}

bool WriteQueue::Start(unsigned depth) {
  if (context_ != 0 || depth == 0) return context_ != 0;
  aio_context_t context = 0;
  if (::syscall(SYS_io_setup, depth, &context) != 0) return false;
  context_ = context;
  depth_ = depth;
  return true;
}

bool WriteQueue::Submit(const File& file, std::uint64_t offset, const void* data, std::size_t size,
                        unsigned tag) {
  const auto address = reinterpret_cast<std::uintptr_t>(data);
  if (context_ == 0 || tag >= kTags || file.fd_ < 0 || size == 0 || (size >> 55) != 0 ||
      offset % kDirectWriteAlignment != 0 || size % kDirectWriteAlignment != 0 ||
      address % kDirectWriteAlignment != 0 || offset > static_cast<std::uint64_t>(INT64_MAX)) {
    return false;
  }
  // Past the file's end the write would extend it, and raise the file-size
  // limit's signal where it applies.
  std::uint64_t file_size = 0;
  if (!file.Size(&file_size) || offset > file_size || size > file_size - offset) return false;
  // The OS checks the offset, not the file's end, against the file-size
  // limit, which the host may lower at any time: past it, it would raise the
  // signal. File::WriteAt then writes what the limit allows.
  struct rlimit limit;
  if (::getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
      offset + size > limit.rlim_cur) {
    return false;
  }
  while (in_flight_ + deferred_.size() >= depth_) Reap(1);
  const Fault fault =
      fault_at.load(std::memory_order_relaxed) == taken_writes.load(std::memory_order_relaxed) + 1
          ? fault_kind.load(std::memory_order_relaxed)
          : Fault::kNone;
  const Request request{file.fd_, address,
                        fault == Fault::kShort ? size - kDirectWriteAlignment : size, offset,
                        (static_cast<std::uint64_t>(size) << 8) |
                            (fault == Fault::kFailed ? kInjectedFailure : 0) | tag};
  if (defer_writes.load(std::memory_order_relaxed)) {
    deferred_.push_back(request);
  } else if (!Hand(request)) {
    return false;
  }
  ++pending_[tag];
  taken_writes.fetch_add(1, std::memory_order_relaxed);
  return true;
}

bool WriteQueue::Hand(const Request& r) {
  iocb request;
  std::memset(&request, 0, sizeof request);
  // What Reap needs comes back in aio_data: the kernel keeps no pointer to
  // the request past io_submit.
  request.aio_data = r.data;
  request.aio_lio_opcode = IOCB_CMD_PWRITE;
  request.aio_fildes = static_cast<std::uint32_t>(r.fd);
  request.aio_buf = r.address;
  request.aio_nbytes = r.size;
  request.aio_offset = static_cast<std::int64_t>(r.offset);
  iocb* list[1] = {&request};
  for (;;) {
    const long n = ::syscall(SYS_io_submit, static_cast<aio_context_t>(context_), 1, list);
    if (n == 1) break;
    // Out of the kernel's request slots for now: make room and retry.
    if (n < 0 && (errno == EAGAIN || errno == EINTR) && in_flight_ > 0) {
      Reap(1);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    return false;
  }
  ++in_flight_;
  return true;
}

void WriteQueue::HandDeferred() {
  std::vector<Request> requests;
  requests.swap(deferred_);
  for (const Request& r : requests) {
    if (Hand(r)) continue;
    const auto tag = static_cast<unsigned>(r.data & 0x7f);
    failed_[tag] = true;
    --pending_[tag];
  }
}

bool WriteQueue::Wait(unsigned tag) {
  if (tag >= kTags) return false;
  while (pending_[tag] > 0) Reap(1);
  const bool ok = !failed_[tag];
  failed_[tag] = false;
  return ok;
}

void WriteQueue::Reap(unsigned min) {
  if (!deferred_.empty()) HandDeferred();
  if (in_flight_ == 0) return;
  io_event events[64];
  const long n = ::syscall(SYS_io_getevents, static_cast<aio_context_t>(context_),
                           static_cast<long>(min), 64L, events, nullptr);
  if (n < 0) {
    if (errno == EINTR) return;
    // The context is unusable: nothing more will finish, so count the
    // writes in flight as failed rather than wait for them forever.
    for (unsigned t = 0; t < kTags; ++t) {
      if (pending_[t] > 0) failed_[t] = true;
      pending_[t] = 0;
    }
    in_flight_ = 0;
    return;
  }
  for (long i = 0; i < n; ++i) {
    const auto tag = static_cast<unsigned>(events[i].data & 0x7f);
    const std::uint64_t size = events[i].data >> 8;
    if (events[i].res < 0 || static_cast<std::uint64_t>(events[i].res) != size ||
        (events[i].data & kInjectedFailure) != 0) {
      failed_[tag] = true;
    }
    --pending_[tag];
    --in_flight_;
  }
}

#endif  // !_WIN32

}  // namespace frfcam::platform
