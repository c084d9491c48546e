// Rendering through the C interface: cube files byte for byte against a
// double-precision DFT, progress, cancellation and the failure codes.
#include <gtest/gtest.h>
#if !defined(_WIN32)
#include <sys/resource.h>
#include <sys/stat.h>
#endif

#include <atomic>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "frfcam/frfcam.h"
#include "frfmap/capture_fixture.h"
#include "frfmap/capture_writer.h"
#include "frfmap/cube_check.h"
#include "frfmap/cube_files.h"
#include "frfmap/cube_record.h"
#include "frfmap/naming.h"
#include "frfmap/render_settings.h"
#include "platform/write_queue.h"
#include "support/test_support.h"

namespace frfcam::frfmap {
namespace {

using test::ScratchDir;
namespace fs = std::filesystem;

std::uint16_t Sample(std::int32_t f, std::size_t p) {
  // A mean, a tone per pixel and a little hash noise.
  const double tone = 900.0 * std::sin(0.37 * (f + 1) * (1.0 + static_cast<double>(p % 5)));
  const std::uint32_t h =
      (static_cast<std::uint32_t>(f) * 2654435761u) ^ (static_cast<std::uint32_t>(p) * 97u);
  return static_cast<std::uint16_t>(std::lround(2000.0 + tone) + (h >> 28));
}

struct Capture {
  std::string header;
  CaptureDesc desc;
  std::vector<std::vector<double>> series;  // [pixel][frame], as stored
};

Capture Make(const ScratchDir& dir, std::uint16_t w, std::uint16_t h, std::int32_t frames,
             std::uint32_t fmt, std::uint32_t per_file, bool single = false) {
  Capture c;
  c.header = dir.file("cap.hdr");
  c.desc = MakeCapture(w, h, frames, fmt, per_file, 500.0);
  c.desc.single_file = single;
  const std::size_t pixels = static_cast<std::size_t>(w) * h;
  WriteSamples(c.header, c.desc, Sample);
  c.series.assign(pixels, std::vector<double>(static_cast<std::size_t>(frames)));
  for (std::size_t p = 0; p < pixels; ++p) {
    for (std::int32_t f = 0; f < frames; ++f) c.series[p][f] = Stored(c.desc, Sample(f, p), p);
  }
  return c;
}

// Every value of the first `pixels` pixels (all by default) against a
// double-precision DFT of what the capture stores, read straight from the
// cube file, [bin][pixel] (every test cube fits in one file).
void ExpectCubeMatchesDft(const Capture& c, std::size_t pixels = SIZE_MAX) {
  const std::size_t frames = static_cast<std::size_t>(c.desc.frames);
  const std::uint32_t bins = static_cast<std::uint32_t>(frames / 2 + 1);
  std::vector<std::complex<double>> twiddle(frames);
  for (std::size_t t = 0; t < frames; ++t) {
    twiddle[t] = std::polar(1.0, -2.0 * M_PI * static_cast<double>(t) / frames);
  }
  std::vector<std::complex<float>> cube(bins * c.series.size(), {NAN, NAN});
  std::ifstream(DataFilePath(c.header, DataFile::kCube, 1), std::ios::binary)
      .read(reinterpret_cast<char*>(cube.data()), static_cast<std::streamsize>(cube.size() * 8));
  pixels = std::min(pixels, c.series.size());
  for (std::size_t p = 0; p < pixels; ++p) {
    for (std::uint32_t b = 0; b < bins; ++b) {
      std::complex<double> want;
      for (std::size_t t = 0; t < frames; ++t) want += c.series[p][t] * twiddle[b * t % frames];
      want /= static_cast<double>(frames);
      const std::complex<float> got = cube[b * c.series.size() + p];
      // Single precision over sums of up to F terms of ~4000.
      ASSERT_NEAR(got.real(), want.real(), 2e-3) << "pixel " << p << " bin " << b;
      ASSERT_NEAR(got.imag(), want.imag(), 2e-3) << "pixel " << p << " bin " << b;
    }
  }
  // Exactly the planes of the cube, nothing more, and recorded complete.
  if (pixels == c.series.size()) {
    EXPECT_EQ(fs::file_size(DataFilePath(c.header, DataFile::kCube, 1)), bins * pixels * 8);
    EXPECT_TRUE(CubeIsComplete(c.header));
  }
}

#define FRFCAM_WHY_REPLACED_CUBE                                          \
  "renders that replace a cube another object holds open (Windows keeps " \
  "open files; tests/windows checks what happens there)"

std::vector<int> g_progress;
std::thread::id g_caller;
bool g_on_caller = true;
void Record(int percent) {
  g_progress.push_back(percent);
  g_on_caller = g_on_caller && std::this_thread::get_id() == g_caller;
}

// Cancels once the render reports `g_cancel_percent` or more.
FrfMapCalcs* g_cancel_target = nullptr;
int g_cancel_percent = 100;
void CancelAtPercent(int percent) {
  if (percent >= g_cancel_percent) CancelRenderCube(g_cancel_target);
}

int OpenAndRender(const std::string& header, ProgressCallback progress = Record) {
  FrfMapCalcs* calcs = g_cancel_target = CreateFrfMapCalcs("render");
  int result = OpenCube(calcs, header.c_str());
  if (result == 0) result = RenderCube(calcs, progress);
  DeleteFrfMapCalcs(calcs);
  return result;
}

TEST(RenderCube, ValuesAreTheScaledDftForEveryShapeOfCapture) {
  struct Case {
    std::uint16_t w, h;
    std::int32_t frames;
    std::uint32_t fmt, per_file;
    bool single;
  };
  const Case cases[] = {
      {5, 3, 13, 1, 4, false},    // odd width and pixel count, prime F, four division files
      {6, 4, 16, 1, 16, false},   // even F: the Nyquist bin
      {7, 2, 9, 0, 3, false},     // 8-bit
      {3, 3, 1, 1, 5, false},     // F = 1: bin 0 only
      {4, 1, 2, 1, 5, false},     // F = 2, a single row
      {17, 3, 11, 1, 500, true},  // single-file capture
      {40, 9, 31, 1, 7, false},   // more than one panel per row
      {48, 32, 10, 1, 4, false},  // page-sized blocks that end inside rows
      {131, 7, 12, 1, 5, false},  // blocks of several groups, one starting at an odd pixel
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(testing::Message() << k.w << "x" << k.h << " F=" << k.frames << " fmt " << k.fmt
                                    << (k.single ? " single" : ""));
    ScratchDir dir;
    const Capture c = Make(dir, k.w, k.h, k.frames, k.fmt, k.per_file, k.single);
    ASSERT_EQ(OpenAndRender(c.header), 0);
    ExpectCubeMatchesDft(c);
  }
}

// Cancels from another thread while the render waits in its first progress
// report, so the cancel lands between a block's transform and its write.
bool g_cancelled = false;
void CancelFromAnotherThreadOnce(int) {
  if (std::exchange(g_cancelled, true)) return;
  std::thread([] { CancelRenderCube(g_cancel_target); }).join();
}

TEST(RenderCube, CancelFromAnotherThreadLeavesTheBlockUnwrittenAndProgressIsOnTheCaller) {
  ScratchDir dir;
  const Capture c = Make(dir, 64, 48, 20, 1, 8);
  const std::string cube = DataFilePath(c.header, DataFile::kCube, 1);
  FrfMapCalcs* calcs = g_cancel_target = CreateFrfMapCalcs("c");
  ASSERT_EQ(OpenCube(calcs, c.header.c_str()), 0);
  g_cancelled = false;
  EXPECT_EQ(RenderCube(calcs, CancelFromAnotherThreadOnce), 1);
  EXPECT_FALSE(fs::exists(cube));
  // Usable again after a new opening; a cancel before the render has no effect.
  ASSERT_EQ(OpenCube(calcs, c.header.c_str()), 0);
  CancelRenderCube(calcs);
  g_progress.clear();
  g_caller = std::this_thread::get_id();
  g_on_caller = true;
  EXPECT_EQ(RenderCube(calcs, Record), 0);
  // Whole, rising percentages on the calling thread, ending at 100.
  ASSERT_FALSE(g_progress.empty());
  EXPECT_EQ(g_progress.back(), 100);
  EXPECT_GT(g_progress.front(), 0);
  for (std::size_t i = 1; i < g_progress.size(); ++i) EXPECT_LT(g_progress[i - 1], g_progress[i]);
  EXPECT_TRUE(g_on_caller);
  ExpectCubeMatchesDft(c);
  // The opening is spent: a second render is refused and touches nothing.
  fs::remove(cube);
  EXPECT_EQ(RenderCube(calcs, nullptr), 2);
  EXPECT_FALSE(fs::exists(cube));
  DeleteFrfMapCalcs(calcs);
}

// Renders with the given budget of cached cube bytes (0: direct writes for
// any cube) and blocks of near `block` bytes of spectra, with direct writes
// handed to the OS only when the render waits for them if `late`; the
// defaults come back at the end of the scope.
struct RenderSettings {
  RenderSettings(std::uint64_t cached, std::uint64_t block, bool late = false) {
    SetCachedCubeBytes(cached);
    SetRenderBlockBytes(block);
    platform::WriteQueue::DeferWrites(late);
  }
  ~RenderSettings() {
    SetCachedCubeBytes(kCachedCubeBytesAutomatic);
    SetRenderBlockBytes(0);
    platform::WriteQueue::DeferWrites(false);
    platform::WriteQueue::InjectFault(platform::WriteQueue::Fault::kNone, 0);
  }
};

// Whether the scratch folder takes direct writes (not a RAM disk) and the OS
// its queue of them (not forbidden by a sandbox).
bool DirectWritesWork(const ScratchDir& dir) {
  platform::File f;
  platform::WriteQueue queue;
  return f.Open(dir.file("probe"), platform::File::Mode::kCreate) && f.Reserve(4096) &&
         f.EnableDirect() && queue.Start(1);
}

// A progress callback: the host lowers the file-size limit to 256 KiB.
void LowerFileSizeLimitOnce(int) {
#if !defined(_WIN32)
  static bool lowered = false;
  if (lowered) return;
  lowered = true;
  struct rlimit limit = {256 << 10, RLIM_INFINITY};
  ::setrlimit(RLIMIT_FSIZE, &limit);
#endif
}

TEST(RenderCube, TheFileSizeLimitGivesThreeNotASignal) {
  // In a child process limited to small files, with SIGXFSZ as the shell
  // leaves it (by default it kills the process).
  if (const char* header = std::getenv("FRFCAM_WRITE_LIMIT_CHILD")) {
    std::optional<RenderSettings> direct;  // blocks of 1024 pixels at 21 bins
    if (std::getenv("FRFCAM_DIRECT_CHILD") != nullptr) direct.emplace(0, 200 << 10);
    const bool midway = std::getenv("FRFCAM_LIMIT_MIDWAY_CHILD") != nullptr;
    std::_Exit(OpenAndRender(header, midway ? LowerFileSizeLimitOnce : nullptr));
  }
  FRFCAM_SKIP_ON_WINDOWS("RLIMIT_FSIZE through a POSIX shell is Linux-only");
  const std::string self = fs::read_symlink("/proc/self/exe").string();
  const struct {
    const char* what;
    const char* prefix;
  } modes[] = {
      {"through the cache", "ulimit -f 256; "},
      // The file cannot be allocated ahead, so it is written through the cache.
      {"direct writes asked for", "ulimit -f 256; FRFCAM_DIRECT_CHILD=1 "},
      // The host lowers the limit once the files are allocated, before the
      // first write: the queued writes meet it.
      {"direct writes, limit lowered midway", "FRFCAM_DIRECT_CHILD=1 FRFCAM_LIMIT_MIDWAY_CHILD=1 "},
  };
  for (const auto& mode : modes) {
    SCOPED_TRACE(mode.what);
    ScratchDir dir;
    if (mode.prefix[0] == 'F' && !DirectWritesWork(dir)) continue;
    const Capture c = Make(dir, 64, 64, 40, 1, 40);  // a 688 KiB cube
    const test::CommandResult r =
        test::RunCommand(std::string(mode.prefix) + "FRFCAM_WRITE_LIMIT_CHILD=" + c.header + " " +
                         self + " --gtest_filter=RenderCube.TheFileSizeLimitGivesThreeNotASignal");
    EXPECT_EQ(r.status, 3) << r.out << r.err;
    EXPECT_FALSE(CubeIsComplete(c.header));
  }
}

// Blocks of `pages` pages of spectra at 13 bins (24 frames). A 200 x 64
// capture then has planes of 25 pages, in 13 blocks of two pages (the last
// of one) that reuse each slot's buffer about six times: 169 writes.
constexpr std::uint64_t BlockOfPages(double pages) { return pages * 512 * 13 * 8; }
constexpr std::uint64_t kManyBlocksWrites = 13 * 13;

TEST(RenderCube, DirectWritesWhereRunsAreWholePagesGiveTheSameCube) {
  ScratchDir dir;
  if (!DirectWritesWork(dir)) GTEST_SKIP() << "no direct writes here";
  const std::uint64_t cube_bytes = 13 * 200 * 64 * 8;
  const struct {
    const char* what;
    std::uint16_t w, h;
    std::uint64_t cached, block;
    bool late, direct;
  } cases[] = {
      {"whole-page runs, direct", 200, 64, 0, BlockOfPages(2), false, true},
      // A buffer reused before its writes finished would reach the disk.
      {"whole-page runs, direct, read late", 200, 64, 0, BlockOfPages(2), true, true},
      {"a cube that fits the cache budget", 200, 64, cube_bytes, BlockOfPages(2), false, false},
      {"runs of two rows, not whole pages", 200, 64, 0, BlockOfPages(0.8), false, false},
      {"planes not whole pages, runs of a page", 256, 5, 0, BlockOfPages(1.2), false, false},
  };
  for (const auto& k : cases) {
    SCOPED_TRACE(k.what);
    ScratchDir one;
    const Capture c = Make(one, k.w, k.h, 24, 1, 24);
    RenderSettings settings(k.cached, k.block, k.late);
    const std::uint64_t taken = platform::WriteQueue::TakenWrites();
    ASSERT_EQ(OpenAndRender(c.header, nullptr), 0);
    EXPECT_EQ(platform::WriteQueue::TakenWrites() - taken, k.direct ? kManyBlocksWrites : 0);
    ExpectCubeMatchesDft(c);
  }
}

TEST(RenderCube, ADirectWriteThatFailsOrACancelLeavesOnlyWholeEarlierBlocksRecorded) {
  ScratchDir dir;
  if (!DirectWritesWork(dir)) GTEST_SKIP() << "no direct writes here";
  using Fault = platform::WriteQueue::Fault;
  const struct {
    const char* what;
    Fault fault;
    std::uint64_t write;  // the write that fails: block * 13 + bin + 1
    int result;
    std::uint32_t rows;  // the rows recorded: those of the blocks before
  } cases[] = {
      {"short write in block 5", Fault::kShort, 5 * 13 + 7, 3, 5 * 1024 / 200},
      {"failed write, the last of block 11", Fault::kFailed, 12 * 13, 3, 11 * 1024 / 200},
      {"failed first write", Fault::kFailed, 1, 3, 0},
      // Transformed past half in block 6: blocks 0-5 are written, the last
      // two still in flight.
      {"cancel at 50 %", Fault::kNone, 0, 1, 6 * 1024 / 200},
  };
  for (const auto& k : cases) {
    SCOPED_TRACE(k.what);
    ScratchDir one;
    const Capture c = Make(one, 200, 64, 24, 1, 24);
    RenderSettings direct(0, BlockOfPages(2), true);
    g_cancel_percent = k.fault == Fault::kNone ? 50 : 101;
    platform::WriteQueue::InjectFault(k.fault, k.write);
    EXPECT_EQ(OpenAndRender(c.header, CancelAtPercent), k.result);
    CubeRecord record;
    ASSERT_EQ(ReadCubeRecord(c.header, &record), RecordState::kValid);
    EXPECT_FALSE(record.complete);
    EXPECT_EQ(record.rows, k.rows);
    ExpectCubeMatchesDft(c, std::size_t{k.rows} * 200);
  }
}

std::vector<unsigned char> MapOf(FrfMapCalcs* calcs, int bin, int* result, unsigned char fill = 7) {
  unsigned w = 0, h = 0;
  GetCubeDims(calcs, &w, &h, nullptr);
  std::vector<unsigned char> map(std::max(1u, w * h), fill);
  *result = ReadFRFMap(calcs, bin, 1.0f, map.data());
  return map;
}

// Renders `c` and opens a reader on it that reads plane `bin` whole into `map`.
FrfMapCalcs* RenderedReader(const Capture& c, int bin, std::vector<unsigned char>* map = nullptr) {
  EXPECT_EQ(OpenAndRender(c.header, nullptr), 0);
  FrfMapCalcs* reader = CreateFrfMapCalcs("reader");
  EXPECT_EQ(OpenCube(reader, c.header.c_str()), 0);
  int r = -1;
  const std::vector<unsigned char> got = MapOf(reader, bin, &r);
  EXPECT_EQ(r, 0);
  if (map != nullptr) *map = got;
  return reader;
}

TEST(RenderCube, AReaderOfAReplacedCubeGetsAShortReadNotAStaleOrMixedMap) {
  FRFCAM_SKIP_ON_WINDOWS(FRFCAM_WHY_REPLACED_CUBE);
  ScratchDir dir, other;
  const Capture big = Make(dir, 16, 8, 40, 1, 50);
  FrfMapCalcs* reader = RenderedReader(big, 15);

  // The same capture name, now with 10 frames: its cube is much shorter.
  const Capture small = Make(other, 16, 8, 10, 1, 50);
  const fs::path data = fs::path(big.header).replace_extension();
  fs::copy_file(small.header, big.header, fs::copy_options::overwrite_existing);
  fs::copy_file(fs::path(small.header).replace_extension() / "cap_0001.div", data / "cap_0001.div",
                fs::copy_options::overwrite_existing);
  ASSERT_EQ(OpenAndRender(big.header, nullptr), 0);
  ASSERT_LT(fs::file_size(data / "cap_0001.fft"), 15u * 16 * 8 * 8);

  // The cube this object opened is gone: nothing of it reads.
  int r = -1;
  for (const int bin : {15, 2}) {
    EXPECT_EQ(MapOf(reader, bin, &r, 1), std::vector<unsigned char>(16 * 8, 1)) << bin;
    EXPECT_EQ(r, 0);
  }
  DeleteFrfMapCalcs(reader);
}

TEST(OpenCube, RefusesCapturesItCannotRenderAndForgetsTheLastOpening) {
  ScratchDir dir;
  const Capture c = Make(dir, 6, 4, 10, 1, 5);
  ASSERT_EQ(OpenAndRender(c.header, nullptr), 0);
  const std::string h = dir.file("h.hdr");
  FrfMapCalcs* calcs = CreateFrfMapCalcs("bad");
  const struct {
    std::uint16_t w, h;
    std::int32_t frames;
    std::uint32_t per_file;
    std::size_t size;
  } bad[] = {
      {0, 0, 0, 0, 0},               // no header at all
      {0, 10, 10, 5, 2998},          // no width
      {10, 10, -4, 5, 2998},         // negative frame count
      {10, 10, 10, 0, 2998},         // no frames per division file
      {20000, 20000, 10, 5, 2998},   // a plane over 2 GiB
      {16384, 16384, 300, 5, 2998},  // one plane per file, 151 files
      {10, 10, 10, 5, 177},          // a header too short to hold W and H
      {1, 1, INT32_MAX, 5, 2998},    // more memory than there is
  };
  for (const auto& k : bad) {
    SCOPED_TRACE(testing::Message() << k.w << "x" << k.h << " F=" << k.frames);
    // After a good opening of a rendered cube, so that a leftover would read.
    ASSERT_EQ(OpenCube(calcs, c.header.c_str()), 0);
    const std::string path = k.size == 0 ? dir.file("missing.hdr") : h;
    if (k.size != 0) WriteHeader(h, k.w, k.h, k.frames, k.per_file, k.size);
    const int open = OpenCube(calcs, path.c_str());
    if (k.frames == INT32_MAX) {
      EXPECT_TRUE(open == FRFCAM_OPEN_NO_MEMORY || open == FRFCAM_OPEN_NO_TRANSFORM) << open;
    } else {
      EXPECT_EQ(open, FRFCAM_OPEN_BAD_CAPTURE);
    }
    unsigned w = 9, hh = 9, bins = 9;
    EXPECT_EQ(GetCubeDims(calcs, &w, &hh, &bins), 0u);
    EXPECT_EQ(w + hh + bins, 0u);
    unsigned char map[24];
    std::fill(std::begin(map), std::end(map), 5);
    EXPECT_EQ(ReadFRFMap(calcs, 1, 1.0f, map), 0);
    EXPECT_EQ(map[0], 5);
    EXPECT_EQ(RenderCube(calcs, nullptr), FRFCAM_RENDER_NO_MEMORY);
  }
  EXPECT_EQ(OpenCube(calcs, nullptr), 2);
  EXPECT_EQ(OpenCube(nullptr, h.c_str()), 2);
  EXPECT_EQ(RenderCube(nullptr, nullptr), 2);
  // 127 files of one plane each is the most that is addressable.
  WriteHeader(h, 16384, 16384, 252, 5);
  EXPECT_EQ(OpenCube(calcs, h.c_str()), 0);
  unsigned w = 9;
  EXPECT_EQ(GetCubeDims(calcs, &w, nullptr, nullptr), 127u);
  EXPECT_EQ(w, 16384u);
  DeleteFrfMapCalcs(calcs);
}

// Runs the current test again in a child process with a time limit, so that
// a hang or a signal fails the test instead of the test program. Returns true
// in the child, which then runs the test's body.
bool InChild() {
  if (std::getenv("FRFCAM_TEST_CHILD") != nullptr) return true;
  const testing::TestInfo* t = testing::UnitTest::GetInstance()->current_test_info();
  const std::string self = fs::read_symlink("/proc/self/exe").string();
  const test::CommandResult r =
      test::RunCommand(std::string("FRFCAM_TEST_CHILD=1 timeout -s KILL 120 ") + self +
                       " --gtest_filter=" + t->test_suite_name() + "." + t->name());
  EXPECT_EQ(r.status, 0) << "the child hung, died or failed:\n" << r.out << r.err;
  return false;
}

TEST(RenderCube, UnreadableFramesAreZeroAndEveryOtherFrameIsRendered) {
  for (const bool cut : {false, true}) {
    SCOPED_TRACE(cut ? "last file cut by 5 bytes" : "division file 2 of 2 missing");
    ScratchDir dir;
    Capture c = Make(dir, 6, 4, 12, 1, 6);
    const std::string second = DataFilePath(c.header, DataFile::kDivision, 2);
    if (cut) {
      fs::resize_file(second, fs::file_size(second) - 5);
      fs::resize_file(c.header, 2997);  // a header one byte short is no error
    } else {
      fs::remove(second);
    }
    // Cut short, the last frame loses its last pixels, which lie in the last
    // block (the lower two rows): only those are zero.
    for (std::size_t p = cut ? 12 : 0; p < c.series.size(); ++p) {
      for (std::size_t f = cut ? 11 : 6; f < 12; ++f) c.series[p][f] = 0;
    }
    ASSERT_EQ(OpenAndRender(c.header, nullptr), 0);
    ExpectCubeMatchesDft(c);
  }
}

TEST(CubeRecord, OnlyAFinishedRenderReadsComplete) {
  FRFCAM_SKIP_ON_WINDOWS(FRFCAM_WHY_REPLACED_CUBE);
  ScratchDir dir;
  const Capture c = Make(dir, 8, 6, 12, 1, 12);
  const std::string record = (fs::path(c.header).replace_extension() / "cap.fft").string();
  EXPECT_FALSE(CubeIsComplete(c.header));
  std::vector<unsigned char> full;
  FrfMapCalcs* reader = RenderedReader(c, 3, &full);
  EXPECT_TRUE(CubeIsComplete(c.header));

  // Cancelled at 100 (every block transformed, the last one not yet
  // written): only the rows before it are complete.
  g_cancel_percent = 100;
  ASSERT_EQ(OpenAndRender(c.header, CancelAtPercent), FRFCAM_RENDER_CANCELLED);
  EXPECT_FALSE(CubeIsComplete(c.header));
  // The reader's object, not opened again, sees the new record too.
  int r = -1;
  const std::vector<unsigned char> part = MapOf(reader, 3, &r);
  EXPECT_EQ(part, std::vector<unsigned char>(48, 7));
  EXPECT_GT(r, 0);
  EXPECT_LT(r, 8 * 6 * 8);
  EXPECT_EQ(r % (8 * 8), 0) << "whole rows";

  // A damaged record trusts nothing; no record at all reads as before.
  ASSERT_EQ(OpenAndRender(c.header, nullptr), 0);
  std::fstream(record, std::ios::in | std::ios::out | std::ios::binary).seekp(20).put('\x7f');
  EXPECT_FALSE(CubeIsComplete(c.header));
  EXPECT_EQ(MapOf(reader, 3, &r), std::vector<unsigned char>(48, 7));
  EXPECT_EQ(r, 0);
  fs::remove(record);
  EXPECT_FALSE(CubeIsComplete(c.header));
  EXPECT_EQ(MapOf(reader, 3, &r), full);
  EXPECT_EQ(r, 0);
  DeleteFrfMapCalcs(reader);
}

TEST(CubeRecord, ReadersOfACubeBeingRenderedSeeWholeMapsOrShortReads) {
  FRFCAM_SKIP_ON_WINDOWS(FRFCAM_WHY_REPLACED_CUBE);
  ScratchDir dir;
  const Capture c = Make(dir, 64, 32, 40, 1, 40);
  std::vector<unsigned char> want;
  FrfMapCalcs* reader = RenderedReader(c, 9, &want);

  std::atomic<bool> rendering{true};
  std::thread renders([&] {
    for (int i = 0; i < 6; ++i) EXPECT_EQ(OpenAndRender(c.header, nullptr), 0);
    rendering = false;
  });
  int whole = 0, wrong = 0, r = -1;
  for (int i = 0; rendering; ++i) {
    // Every other read reuses the object's handles of the last one.
    if (i % 2 == 0) {
      ASSERT_EQ(OpenCube(reader, c.header.c_str()), 0);
    }
    const std::vector<unsigned char> got = MapOf(reader, 9, &r, 1);
    // Untouched (whatever the count), or whole and right with 0.
    const bool untouched = got == std::vector<unsigned char>(got.size(), 1);
    if (r == 0 && got == want) ++whole;
    if (!untouched && (r != 0 || got != want)) ++wrong;
  }
  renders.join();
  EXPECT_EQ(wrong, 0) << whole << " whole maps";
  DeleteFrfMapCalcs(reader);
}

TEST(HostileFiles, FifosAreRefusedAndNeverWaitedFor) {
  FRFCAM_SKIP_ON_WINDOWS("FIFOs and timed child processes are Linux-only");
#if !defined(_WIN32)
  if (!InChild()) return;
  ScratchDir dir;
  const Capture c = Make(dir, 8, 4, 10, 1, 5);
  const fs::path data = fs::path(c.header).replace_extension();
  auto fifo = [](const fs::path& p) {
    fs::remove(p);
    ASSERT_EQ(::mkfifo(p.c_str(), 0600), 0) << p;
  };
  // A FIFO where a cube file will be written is replaced.
  fs::create_directories(data);
  fifo(data / "cap_0001.fft");
  FrfMapCalcs* calcs = RenderedReader(c, 2);
  int r = -1;
  // In place of the record, then of the cube file: nothing reads.
  fifo(data / "cap.fft");
  EXPECT_FALSE(CubeIsComplete(c.header));
  EXPECT_EQ(MapOf(calcs, 2, &r), std::vector<unsigned char>(32, 7));
  EXPECT_EQ(r, 0);
  fs::remove(data / "cap.fft");
  fifo(data / "cap_0001.fft");
  ASSERT_EQ(OpenCube(calcs, c.header.c_str()), 0);
  EXPECT_EQ(MapOf(calcs, 2, &r), std::vector<unsigned char>(32, 7));
  EXPECT_EQ(r, 0);

  // In place of a division file: its frames render as zero.
  fifo(data / "cap_0002.div");
  ASSERT_EQ(OpenCube(calcs, c.header.c_str()), 0);
  EXPECT_EQ(RenderCube(calcs, nullptr), 0);
  // In place of the header: not a capture.
  fifo(c.header);
  EXPECT_EQ(OpenCube(calcs, c.header.c_str()), FRFCAM_OPEN_BAD_CAPTURE);
  DeleteFrfMapCalcs(calcs);

  // DeleteCube removes regular files named *.fft below the folder only: no
  // FIFO, no link, no folder, no other extension.
  fs::create_symlink(data / "cap_0001.fft", data / "link.fft");
  fifo(data / "pipe.fft");
  fs::create_directories(dir.path() / "sub" / "deeper.fft");
  for (const char* name : {"sub/b_0002.fft", "sub/deeper.fft/x_0001.fft", "c.FFT", "a.cap"}) {
    std::ofstream(dir.path() / name) << "x";
  }
  DeleteCube(nullptr, dir.path().c_str());
  for (const char* gone :
       {"cap/cap_0001.fft", "cap/cap.fft", "sub/b_0002.fft", "sub/deeper.fft/x_0001.fft"}) {
    EXPECT_FALSE(fs::exists(dir.path() / gone)) << gone;
  }
  for (const char* kept : {"cap/pipe.fft", "cap/link.fft", "sub/deeper.fft", "c.FFT", "a.cap"}) {
    EXPECT_TRUE(fs::is_symlink(dir.path() / kept) || fs::exists(dir.path() / kept)) << kept;
  }
  DeleteCube(nullptr, (dir.path() / "does-not-exist").c_str());
  DeleteCube(nullptr, nullptr);
#endif
}

TEST(HostileFiles, ACubeFileCutShortBetweenReadsIsAShortRead) {
  FRFCAM_SKIP_ON_WINDOWS(
      "removing or cutting a file another object holds open (Windows refuses it)");
  if (!InChild()) return;
  ScratchDir dir;
  // Large enough for the plane to be read in several pieces.
  const Capture c = Make(dir, 128, 128, 40, 1, 50);
  FrfMapCalcs* calcs = RenderedReader(c, 15);
  int r = -1;
  const std::uint64_t plane = 128 * 128 * 8;
  fs::resize_file(fs::path(c.header).replace_extension() / "cap_0001.fft",
                  15 * plane + plane / 2 + 100);
  EXPECT_EQ(MapOf(calcs, 15, &r), std::vector<unsigned char>(128 * 128, 7));
  EXPECT_EQ(r, plane / 2 + 100);
  DeleteFrfMapCalcs(calcs);
}

}  // namespace
}  // namespace frfcam::frfmap
