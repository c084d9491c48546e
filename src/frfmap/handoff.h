// A small blocking queue of slot numbers that hands buffers between the
// stages of a render (read, transform, write).
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>

namespace frfcam::frfmap {

class Handoff {
 public:
  void Push(int slot) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      items_.push_back(slot);
    }
    ready_.notify_one();
  }
  // The next slot, or nothing once the queue is closed and empty.
  std::optional<int> Pop() {
    std::unique_lock<std::mutex> lock(mutex_);
    ready_.wait(lock, [&] { return !items_.empty() || closed_; });
    if (items_.empty()) return std::nullopt;
    const int slot = items_.front();
    items_.pop_front();
    return slot;
  }
  // Wakes every waiter; later pops return what is left, then nothing.
  void Close() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      closed_ = true;
    }
    ready_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<int> items_;
  bool closed_ = false;
};

}  // namespace frfcam::frfmap
