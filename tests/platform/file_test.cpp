// The file layer under hostile paths and limits: FIFOs and folders are
// refused without blocking, the file-size limit is a short write rather than
// a signal that leaves the signal state as it was, and queued direct writes
// land whole or are refused. Anything that could hang or kill runs in a
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

void WriteBytes(const std::string& path, std::size_t n) {
  std::vector<char> b(n);
  for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<char>(i * 7);
  std::ofstream(path, std::ios::binary).write(b.data(), static_cast<std::streamsize>(n));
}

TEST(File, OpensRegularFilesOnlyAndNeverBlocks) {
  test::ScratchDir dir;
  const std::string fifo = dir.file("pipe.fft"), regular = dir.file("a.bin"),
                    link = dir.file("link.bin"), sub = dir.file("sub");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  WriteBytes(regular, 100);
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
  ASSERT_TRUE(f.Size(&size));
  EXPECT_EQ(size, 100u);
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

TEST(WriteQueue, QueuedWritesLandWholeAndOnlyAlignedWritesInsideTheFileAreTaken) {
  test::ScratchDir dir;
  const std::string path = dir.file("direct.bin");
  File out;
  ASSERT_TRUE(out.Open(path, File::Mode::kCreate));
  ASSERT_TRUE(out.Reserve(1 << 20));
  WriteQueue queue;
  if (!out.EnableDirect() || !queue.Start(4)) {
    GTEST_SKIP() << "no direct writes on this file system";
  }
  constexpr std::size_t kRun = 64 << 10;
  struct Free {
    void operator()(char* p) const { std::free(p); }
  };
  std::unique_ptr<char, Free> memory(
      static_cast<char*>(std::aligned_alloc(kDirectWriteAlignment, 8 * kRun)));
  char* runs = memory.get();
  for (std::size_t i = 0; i < 8 * kRun; ++i) runs[i] = static_cast<char>(i * 13 + i / kRun);
  // Eight runs, two tags, more than the depth: Submit waits for room.
  for (unsigned r = 0; r < 8; ++r) {
    ASSERT_TRUE(queue.Submit(out, (7 - r) * kRun, runs + r * kRun, kRun, r % 2)) << r;
  }
  EXPECT_TRUE(queue.Wait(0));
  EXPECT_TRUE(queue.Wait(1));

  // Refused, nothing queued: unaligned offset, size or memory, a write past
  // the end (it would grow the file), an unknown tag.
  EXPECT_FALSE(queue.Submit(out, 100, runs, kRun, 0));
  EXPECT_FALSE(queue.Submit(out, 0, runs, kRun - 512, 0));
  EXPECT_FALSE(queue.Submit(out, 0, runs + 512, kRun, 0));
  EXPECT_FALSE(queue.Submit(out, (1 << 20) - kRun / 2, runs, kRun, 0));
  EXPECT_FALSE(queue.Submit(out, 0, runs, kRun, WriteQueue::kTags));
  EXPECT_TRUE(queue.Wait(0));  // refusals are not failed writes

  File in;
  ASSERT_TRUE(in.Open(path, File::Mode::kRead));
  std::vector<char> back(8 * kRun);
  ASSERT_EQ(in.ReadAt(0, back.data(), back.size()), back.size());
  for (unsigned r = 0; r < 8; ++r) {
    EXPECT_EQ(std::memcmp(back.data() + (7 - r) * kRun, runs + r * kRun, kRun), 0) << r;
  }
  std::uint64_t size = 0;
  ASSERT_TRUE(in.Size(&size));
  EXPECT_EQ(size, 1u << 20);
}

}  // namespace
}  // namespace frfcam::platform
