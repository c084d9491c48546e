// The file layer under hostile paths and limits: FIFOs and folders are
// refused without blocking, and the file-size limit is a short write rather
// than a signal that leaves the signal state as it was. Anything that could
// hang or kill runs in a forked child. (Truncation by another party and
// replaced files are checked through the cube readers in tests/frfmap.)
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "platform/platform.h"
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

}  // namespace
}  // namespace frfcam::platform
