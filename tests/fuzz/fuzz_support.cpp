#include "fuzz_support.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace frfcam::fuzz {

namespace {

std::string MakeScratch() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/frfcam-fuzz-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    std::perror("fuzz: cannot make a scratch folder");
    std::abort();
  }
  // Not removed after a crash: what the reader saw stays for a look.
  static const std::string kept = pattern;
  std::atexit([] {
    std::error_code ec;
    std::filesystem::remove_all(kept, ec);
  });
  return pattern + "/";
}

}  // namespace

const std::string& ScratchDir() {
  static const std::string dir = MakeScratch();
  return dir;
}

std::string WriteScratchFile(const std::string& name, const std::uint8_t* data, std::size_t size) {
  const std::string path = ScratchDir() + name;
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (size > 0) out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  out.close();
  if (!out) {
    std::fprintf(stderr, "fuzz: cannot write %s\n", path.c_str());
    std::abort();
  }
  return path;
}

void RemoveScratch(const std::string& name) {
  std::error_code ec;
  std::filesystem::remove_all(ScratchDir() + name, ec);
}

void Fail(const char* what) {
  std::fprintf(stderr, "fuzz: %s\n", what);
  std::abort();
}

const std::uint8_t* ByteReader::Take(std::size_t n, std::size_t* got) {
  const std::size_t k = n < size_ - pos_ ? n : size_ - pos_;
  const std::uint8_t* p = data_ + pos_;
  pos_ += k;
  *got = k;
  return p;
}

std::uint8_t ByteReader::U8() { return pos_ < size_ ? data_[pos_++] : 0; }

std::uint16_t ByteReader::U16() {
  const std::uint16_t lo = U8();
  return static_cast<std::uint16_t>(lo | (U8() << 8));
}

std::uint32_t ByteReader::U32() {
  const std::uint32_t lo = U16();
  return lo | (static_cast<std::uint32_t>(U16()) << 16);
}

double ByteReader::F64() {
  std::uint64_t bits = U32();
  bits |= static_cast<std::uint64_t>(U32()) << 32;
  double v;
  std::memcpy(&v, &bits, sizeof v);
  return v;
}

}  // namespace frfcam::fuzz
