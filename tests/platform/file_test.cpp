// The file layer under hostile paths and limits: FIFOs and folders are
// refused without blocking, the file-size limit is a short write rather than
// a signal that leaves the signal state as it was, and queued direct writes
// land whole, are refused, or report their failure. Anything that could hang or kill runs in a
// forked child. (Truncation by another party and replaced files are checked
// through the cube readers in tests/frfmap.)
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "platform/write_queue.h"
#include "support/test_support.h"

namespace frfcam::platform {
namespace {

namespace fs = std::filesystem;

// Runs `body` in a child with a 20 s alarm; returns the child's wait status.
int InChild(const std::function<int()>& body) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::alarm(20);
    ::_exit(body());
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return status;
}

TEST(File, OpensRegularFilesOnlyAndNeverBlocks) {
  test::ScratchDir dir;
  const std::string fifo = dir.file("pipe.fft"), regular = dir.file("a.bin"),
                    link = dir.file("link.bin"), sub = dir.file("sub");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::ofstream(regular) << std::string(100, 'x');
  fs::create_symlink(regular, link);
  fs::create_directory(sub);

  const int status = InChild([&] {
    File f;
    if (f.Open(fifo, File::Mode::kRead)) return 1;
    if (f.Open(sub, File::Mode::kRead) || f.Open(sub, File::Mode::kCreate)) return 2;
    if (f.Open(dir.file("missing"), File::Mode::kRead)) return 3;
    if (f.Open("/dev/zero", File::Mode::kRead)) return 4;
    return 0;
  });
  ASSERT_TRUE(WIFEXITED(status)) << "the open blocked or crashed";
  EXPECT_EQ(WEXITSTATUS(status), 0);

  File f;
  ASSERT_TRUE(f.Open(link, File::Mode::kRead));  // a link to a regular file is followed
  std::uint64_t size = 0;
  EXPECT_TRUE(f.Size(&size) && size == 100u) << size;
}

TEST(File, TheFileSizeLimitGivesAShortWriteNotASignal) {
  test::ScratchDir dir;
  const std::string path = dir.file("big.bin");
  const int status = InChild([&] {
    sigset_t before, after;
    ::sigprocmask(SIG_SETMASK, nullptr, &before);
    struct rlimit limit = {64 * 1024, 64 * 1024};
    if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) return 10;
    File f;
    if (!f.Open(path, File::Mode::kCreate)) return 11;
    if (f.Reserve(1 << 20)) return 17;  // allocating past the limit is refused, silently
    std::vector<char> block(48 * 1024, 'x');
    if (f.WriteAt(0, block.data(), block.size()) != block.size()) return 12;
    if (f.WriteAt(block.size(), block.data(), block.size()) != 16 * 1024) return 13;
    if (f.WriteAt(1 << 20, block.data(), 1) != 0) return 14;
    ::sigprocmask(SIG_SETMASK, nullptr, &after);
    struct sigaction action;
    ::sigaction(SIGXFSZ, nullptr, &action);
    if (action.sa_handler != SIG_DFL) return 15;
    for (int s = 1; s < 32; ++s) {
      if (::sigismember(&before, s) != ::sigismember(&after, s)) return 16;
    }
    return 0;
  });
  ASSERT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(fs::file_size(path), 64u * 1024);
}

// A file of 1 MiB allocated ahead and switched to direct writes, a queue of
// depth 4 and eight aligned runs of 64 KiB, each of its own bytes.
constexpr std::size_t kRun = 64 << 10;
constexpr std::uint64_t kFileBytes = 1 << 20;
struct DirectSetup {
  File out;
  WriteQueue queue;
  std::unique_ptr<char, decltype(&std::free)> memory{
      static_cast<char*>(std::aligned_alloc(kDirectWriteAlignment, 8 * kRun)), &std::free};

  // False where the file system or a sandbox offers no direct writes.
  bool Start(const std::string& path) {
    for (std::size_t i = 0; i < 8 * kRun; ++i)
      memory.get()[i] = static_cast<char>(i * 13 + i / kRun);
    return out.Open(path, File::Mode::kCreate) && out.Reserve(kFileBytes) && out.EnableDirect() &&
           queue.Start(4);
  }
  const char* run(unsigned r) const { return memory.get() + r * kRun; }
};

std::vector<char> ReadAll(const std::string& path) {
  File in;
  std::vector<char> back(kFileBytes);
  EXPECT_TRUE(in.Open(path, File::Mode::kRead));
  EXPECT_EQ(in.ReadAt(0, back.data(), back.size()), back.size());
  return back;
}

TEST(WriteQueue, QueuedWritesLandWholeAndOnlyAlignedWritesInsideTheFileAreTaken) {
  test::ScratchDir dir;
  const std::string path = dir.file("direct.bin");
  DirectSetup d;
  if (!d.Start(path)) GTEST_SKIP() << "no direct writes on this file system";
  const std::uint64_t taken = WriteQueue::TakenWrites();
  // Eight runs, two tags, more than the depth: Submit waits for room.
  for (unsigned r = 0; r < 8; ++r) {
    ASSERT_TRUE(d.queue.Submit(d.out, (7 - r) * kRun, d.run(r), kRun, r % 2)) << r;
  }
  EXPECT_TRUE(d.queue.Wait(0));
  EXPECT_TRUE(d.queue.Wait(1));

  // Refused, nothing queued: unaligned offset, size or memory, a write past
  // the end (it would grow the file), an unknown tag.
  EXPECT_FALSE(d.queue.Submit(d.out, 100, d.run(0), kRun, 0));
  EXPECT_FALSE(d.queue.Submit(d.out, 0, d.run(0), kRun - 512, 0));
  EXPECT_FALSE(d.queue.Submit(d.out, 0, d.run(0) + 512, kRun, 0));
  EXPECT_FALSE(d.queue.Submit(d.out, (1 << 20) - kRun / 2, d.run(0), kRun, 0));
  EXPECT_FALSE(d.queue.Submit(d.out, 0, d.run(0), kRun, WriteQueue::kTags));
  EXPECT_TRUE(d.queue.Wait(0));  // refusals are not failed writes
  EXPECT_EQ(WriteQueue::TakenWrites() - taken, 8u);

  const std::vector<char> back = ReadAll(path);
  for (unsigned r = 0; r < 8; ++r) {
    EXPECT_EQ(std::memcmp(back.data() + (7 - r) * kRun, d.run(r), kRun), 0) << r;
  }
  std::uint64_t size = 0;
  EXPECT_TRUE(d.out.Size(&size) && size == kFileBytes) << size;
}

TEST(WriteQueue, AShortOrFailedWriteFailsItsTagOnceAndNoOther) {
  test::ScratchDir dir;
  const std::string path = dir.file("direct.bin");
  DirectSetup d;
  if (!d.Start(path)) GTEST_SKIP() << "no direct writes on this file system";
  // Write 6 of 8 (tag 1, with writes of every tag in flight around it) ends
  // a page short; then the first write of tag 2 fails.
  WriteQueue::InjectFault(WriteQueue::Fault::kShort, 6);
  for (unsigned r = 0; r < 8; ++r) {
    ASSERT_TRUE(d.queue.Submit(d.out, r * kRun, d.run(r), kRun, r % 4)) << r;
  }
  for (unsigned tag = 0; tag < 4; ++tag) EXPECT_EQ(d.queue.Wait(tag), tag != 1) << tag;
  EXPECT_TRUE(d.queue.Wait(1)) << "a failure is reported once";
  WriteQueue::InjectFault(WriteQueue::Fault::kFailed, 2);
  ASSERT_TRUE(d.queue.Submit(d.out, 0, d.run(0), kRun, 3));
  ASSERT_TRUE(d.queue.Submit(d.out, kRun, d.run(1), kRun, 2));
  EXPECT_FALSE(d.queue.Wait(2));
  EXPECT_TRUE(d.queue.Wait(3));
  WriteQueue::InjectFault(WriteQueue::Fault::kNone, 0);

  // The short write left its last page as allocated (zeros).
  const std::vector<char> back = ReadAll(path);
  EXPECT_EQ(std::memcmp(back.data() + 5 * kRun, d.run(5), kRun - kDirectWriteAlignment), 0);
  EXPECT_EQ(
      std::vector<char>(back.begin() + 6 * kRun - kDirectWriteAlignment, back.begin() + 6 * kRun),
      std::vector<char>(kDirectWriteAlignment, 0));
  EXPECT_EQ(std::memcmp(back.data() + 6 * kRun, d.run(6), 2 * kRun), 0);
}

TEST(WriteQueue, WritesPastAFileSizeLimitLoweredMidwayAreRefusedNotSignalled) {
  test::ScratchDir dir;
  const std::string path = dir.file("direct.bin");
  {
    DirectSetup probe;
    if (!probe.Start(path)) GTEST_SKIP() << "no direct writes on this file system";
  }
  const int status = InChild([&] {
    DirectSetup d;
    if (!d.Start(path)) return 10;
    // The file is allocated already; the host lowers the limit below its end.
    struct rlimit limit = {4 * kRun, RLIM_INFINITY};
    if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) return 11;
    if (!d.queue.Submit(d.out, 3 * kRun, d.run(0), kRun, 0)) return 12;
    if (d.queue.Submit(d.out, 4 * kRun, d.run(1), kRun, 0)) return 13;
    if (d.queue.Submit(d.out, 3 * kRun, d.run(1), 2 * kRun, 0)) return 14;
    if (!d.queue.Wait(0)) return 15;
    return 0;
  });
  ASSERT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace frfcam::platform
