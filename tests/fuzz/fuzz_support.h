// Shared pieces of the fuzz harnesses: a scratch folder of the process for
// readers that only take paths, and a reader of the fuzz bytes that runs
// dry into zeros instead of failing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace frfcam::fuzz {

// The process's scratch folder (made on first use under $TMPDIR or /tmp,
// removed at exit), with a trailing '/'.
const std::string& ScratchDir();

// Writes `size` bytes to ScratchDir() + name, replacing the file, and
// returns the path; creates missing folders of `name`. Aborts when the
// scratch folder cannot take it: a harness that cannot set up its input
// would otherwise report nothing.
std::string WriteScratchFile(const std::string& name, const std::uint8_t* data, std::size_t size);

// Removes ScratchDir() + name if it exists (a file or a whole folder).
void RemoveScratch(const std::string& name);

// Reports a broken promise of the code under test (`what`, one line) and
// aborts, which the fuzzer takes as a finding.
[[noreturn]] void Fail(const char* what);

// Little-endian fields from the front of the fuzz bytes; past the end every
// field reads as zero and Rest() is empty.
class ByteReader {
 public:
  ByteReader(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  std::uint8_t U8();
  std::uint16_t U16();
  std::uint32_t U32();
  double F64();  // the raw bits: any NaN, infinity or subnormal
  // The next `n` bytes, or as many as are left; advances past them.
  const std::uint8_t* Take(std::size_t n, std::size_t* got);
  const std::uint8_t* Rest(std::size_t* got) { return Take(size_ - pos_, got); }
  std::size_t left() const { return size_ - pos_; }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t pos_ = 0;
};

}  // namespace frfcam::fuzz
