#include "platform/platform.h"

#include <gtest/gtest.h>

namespace frfcam::platform {
namespace {

TEST(Memory, MemAvailableCappedByTheControlGroup) {
  EXPECT_EQ(ParseMemAvailable("MemTotal: 100 kB\nMemFree: 5 kB\nMemAvailable:    2048 kB\n"),
            2048u * 1024);
  EXPECT_EQ(ParseMemAvailable("MemTotal: 100 kB\n"), UINT64_MAX);
  EXPECT_EQ(CgroupHeadroom("max\n", "1000\n"), UINT64_MAX);
  EXPECT_EQ(CgroupHeadroom("8000\n", "3000\n"), 5000u);
  EXPECT_EQ(CgroupHeadroom("8000\n", "9000\n"), 0u);
  EXPECT_GT(AvailablePhysicalMemory(), 0u);
}

TEST(Paths, SplitKeepsAllButTheLastExtension) {
  PathParts p = SplitPath("/data/runs/plate.v2.hdr");
  EXPECT_EQ(p.dir, "/data/runs/");
  EXPECT_EQ(p.fname, "plate.v2");
  EXPECT_EQ(p.ext, ".hdr");
  p = SplitPath("plate");
  EXPECT_EQ(p.dir, "");
  EXPECT_EQ(p.fname, "plate");
  EXPECT_EQ(p.ext, "");
  p = SplitPath("dir.d/plate");
  EXPECT_EQ(p.dir, "dir.d/");
  EXPECT_EQ(p.fname, "plate");
}

}  // namespace
}  // namespace frfcam::platform
