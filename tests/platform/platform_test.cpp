// (Path splitting is checked through the naming rule in tests/frfmap.)
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

}  // namespace
}  // namespace frfcam::platform
