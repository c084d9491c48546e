#include "platform/record_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "support/test_support.h"

namespace frfcam::platform {
namespace {

std::string Content(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

TEST(RecordFile, ReplacesRegularFilesAndRefusesEverythingElse) {
  test::ScratchDir dir;
  const std::string file = dir.file("record");
  ASSERT_TRUE(WriteWholeFile(file, "abc", 3));
  EXPECT_EQ(Content(file), "abc");
  std::ofstream(file, std::ios::binary) << std::string(1000, 'x');
  ASSERT_TRUE(WriteWholeFile(file, "de", 2));
  EXPECT_EQ(Content(file), "de");  // replaced, not written over in place
  ASSERT_TRUE(WriteWholeFile(file, "", 0));
  EXPECT_EQ(Content(file), "");

  EXPECT_FALSE(WriteWholeFile(dir.file("missing/record"), "abc", 3));
  EXPECT_FALSE(WriteWholeFile(dir.path().string(), "abc", 3));
  EXPECT_FALSE(WriteWholeFile("/dev/null", "abc", 3));

  // A FIFO without a reader would block a plain open; with a reader it
  // would take the bytes. Neither may happen.
  const std::string fifo = dir.file("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_FALSE(WriteWholeFile(fifo, "abc", 3));
  const int reader = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(reader, 0);
  EXPECT_FALSE(WriteWholeFile(fifo, "abc", 3));
  char byte;
  EXPECT_EQ(::read(reader, &byte, 1), 0);  // nothing arrived
  ::close(reader);
}

}  // namespace
}  // namespace frfcam::platform
