// Naming, addressing and planning examples worked out by hand.
#include "frfmap/layout.h"

#include <gtest/gtest.h>

#include "frfmap/naming.h"
#include "frfmap/planner.h"
#include "support/test_support.h"

namespace frfcam::frfmap {
namespace {

constexpr std::uint64_t kGiB = 1ull << 30;

TEST(Naming, FilesLieInAFolderNamedAfterTheCapture) {
  FRFCAM_SKIP_ON_WINDOWS("the naming rule joins with a backslash (WindowsPaths checks it)");
  EXPECT_EQ(DataFilePath("/runs/bridge.hdr", DataFile::kDivision, 1),
            "/runs/bridge/bridge_0001.div");
  EXPECT_EQ(DataFilePath("/runs/bridge.hdr", DataFile::kCube, 3), "/runs/bridge/bridge_0003.fft");
  EXPECT_EQ(DataFilePath("/runs/bridge.hdr", DataFile::kSingle, 0), "/runs/bridge/bridge.cap");
  EXPECT_EQ(DataFilePath("r/bridge.hdr", DataFile::kCube, 12345), "r/bridge/bridge_12345.fft");
  EXPECT_EQ(DataFilePath("a.b/run.2.x.hdr", DataFile::kCube, 7), "a.b/run.2.x/run.2.x_0007.fft");
  EXPECT_EQ(DataFilePath("noext", DataFile::kDivision, 2), "noext/noext_0002.div");
  EXPECT_EQ(DataFolder("/runs/bridge.hdr"), "/runs/bridge");
}

TEST(CubeLayout, PlanesPerFileStayUnderTwoGiB) {
  const CubeLayout big = CubeLayout::For(2048 * 1088, 4000 / 2 + 1);
  EXPECT_EQ(big.bins_per_file, 120u);
  EXPECT_EQ(big.FileCount(), 17u);
  EXPECT_EQ(big.Locate(2000).file, 17u);

  const CubeLayout mega = CubeLayout::For(1000 * 1000, 501);
  EXPECT_EQ(mega.bins_per_file, 268u);
  EXPECT_EQ(mega.Locate(268).file, 2u);
  EXPECT_EQ(mega.Locate(268).offset, 0u);
  EXPECT_EQ(mega.Locate(267).file, 1u);
  EXPECT_EQ(mega.Locate(267).offset, 267ull * 8000000);

  // A plane over 2 GiB has no layout at all.
  EXPECT_EQ(CubeLayout::For(20000ull * 20000, 2).bins_per_file, 0u);
}

TEST(Layout, FramesInDivisionFiles) {
  const std::uint64_t s = 1000 * 1000 * 3 / 2;
  EXPECT_EQ(LocateFrame(499, s, 500).file, 1u);
  EXPECT_EQ(LocateFrame(499, s, 500).offset, 499 * (s + 16));
  EXPECT_EQ(LocateFrame(500, s, 500).file, 2u);
  EXPECT_EQ(LocateFrame(500, s, 500).offset, 0u);
  EXPECT_EQ(LocateFrame(501, s, 500).offset, s + 16);
}

TEST(Planner, BlocksAreWholeRowsWithinTheBudget) {
  // 10 GB needed against a 4 GiB budget: a third, whole rows, halved, whole rows.
  EXPECT_EQ(PlanBlockPixels(1000, 1000, 1000, 16 * kGiB), 166000u);
  // When the need fits, the block is still half the image in whole rows.
  EXPECT_EQ(PlanBlockPixels(640, 480, 1000, 16 * kGiB), 153600u);
  // 6 GiB available: budget 2^31 - 1, need 3.07e9 -> half the image, halved.
  EXPECT_EQ(PlanBlockPixels(640, 480, 1000, 6 * kGiB), 76800u);
  // Odd heights round down to whole rows.
  EXPECT_EQ(PlanBlockPixels(7, 5, 10, 16 * kGiB), 14u);
  // A single row still renders, and so does a machine that reports nothing.
  EXPECT_EQ(PlanBlockPixels(333, 1, 10, 16 * kGiB), 333u);
  EXPECT_EQ(PlanBlockPixels(100, 50, 10, 0), 100u);
  EXPECT_EQ(PlanBlockPixels(0, 50, 10, 16 * kGiB), 0u);
}

TEST(Planner, SubBlocksFollowFourteenBytesPerFrame) {
  EXPECT_EQ(SubBlockPixels(1000, 16 * kGiB), 65536u);
  // 1 GiB: x = 2^30 - 1 after filling half of it, a quarter is 2^28 - 1.
  EXPECT_EQ(SubBlockPixels(100000, 1 * kGiB), (268435455ull / 1400004));
  EXPECT_EQ(SubBlockPixels(1 << 30, 1 * kGiB), 1u);
}

}  // namespace
}  // namespace frfcam::frfmap
