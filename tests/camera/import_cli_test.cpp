// `frfcam import` and recordings given directly to the other commands: the
// capture made, the import kept beside the recording, and one-line refusals
// that leave no capture.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/test_support.h"

namespace frfcam {
namespace {

namespace fs = std::filesystem;
using test::Cli;

class ImportCli : public ::testing::Test {
 protected:
  void SetUp() override {
    cih = dir.file("rec.cih");
    const auto r = Cli("synth " + cih + " --scene beam --width 24 --height 48 --frames 40");
    ASSERT_EQ(r.status, 0) << r.err;
  }
  test::ScratchDir dir;
  std::string cih;
};

TEST_F(ImportCli, WritesACaptureOfTheRangeAndRegion) {
  const std::string out = dir.file("part.hdr");
  const auto r = Cli("import " + cih + " -o " + out + " --frames 5:24 --roi 4,0,16,48");
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  EXPECT_NE(r.out.find("MRAW, 24x48, 40 frames, 12-bit"), std::string::npos) << r.out;
  const auto info = Cli("info " + out);
  EXPECT_NE(info.out.find("width             16"), std::string::npos) << info.out;
  EXPECT_NE(info.out.find("frames            20"), std::string::npos) << info.out;
  EXPECT_NE(info.out.find("taken: frames 5:24, region 4,0,16,48"), std::string::npos) << info.out;
  EXPECT_EQ(Cli("render " + out).status, 0);
}

TEST_F(ImportCli, CommandsTakeTheRecordingAndKeepItsImport) {
  auto r = Cli("render " + cih);
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  EXPECT_NE(r.out.find("imported " + cih), std::string::npos) << r.out;
  EXPECT_TRUE(fs::exists(cih + ".frfcam/capture.hdr"));
  r = Cli("map " + cih + " --freq 60 -o " + dir.file("m.png"));
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  EXPECT_NE(r.out.find("using the import of " + cih), std::string::npos) << r.out;
  // A read-only place: the import goes below --work-dir.
  const std::string work = dir.file("work");
  fs::create_directory(work);
  r = Cli("render " + cih + " --work-dir " + work);
  ASSERT_EQ(r.status, 0) << r.err << r.out;
  EXPECT_TRUE(fs::exists(work + "/rec.cih.frfcam/capture.hdr"));
  // A changed recording is imported again.
  ASSERT_EQ(Cli("synth " + cih + " --scene beam --width 24 --height 48 --frames 30 --force").status,
            0);
  r = Cli("render " + cih);
  EXPECT_NE(r.out.find("imported " + cih), std::string::npos) << r.out;
  EXPECT_NE(Cli("info " + cih + ".frfcam/capture.hdr").out.find("frames            30"),
            std::string::npos);
}

TEST_F(ImportCli, RefusalsAreOneLineAndLeaveNoCapture) {
  const std::string out = dir.file("x.hdr");
  const auto refused = [&](const std::string& args, const std::string& words) {
    const auto r = Cli("import " + args + " -o " + out);
    EXPECT_EQ(r.status, 1) << args;
    EXPECT_NE(r.err.find(words), std::string::npos) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_FALSE(fs::exists(out)) << args;
  };
  refused(cih + " --roi 20,0,8,8", "region 20,0,8,8");
  refused(cih + " --frames 30:45", "not within its 40 frames");
  refused(dir.file("none.cih"), "none.");
  fs::remove(dir.file("rec.mraw"));
  refused(cih, "rec.");
}

}  // namespace
}  // namespace frfcam
