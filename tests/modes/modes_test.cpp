#include "modes/modes.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "frfmap/naming.h"
#include "modes_fixture.h"

namespace frfcam::modes {
namespace {

using test::RenderedScene;
using test::SmallScene;

ModesOptions TestOptions() {
  ModesOptions o;
  o.fps = 2000.0;
  o.minGridPixels = 1500;  // keeps the sanitizer build quick
  return o;
}

std::vector<std::complex<double>> Widen(const std::vector<std::complex<float>>& v) {
  return std::vector<std::complex<double>>(v.begin(), v.end());
}

// Every true mode, and nothing else: frequency within 0.5 %, damping within
// 10 %, shape MAC >= 0.98 against the scene's own brightness response, and a
// nearly real (mono-phase) shape.
ModesResult ExpectTheScenesModes(const RenderedScene& s, const ModesOptions& options) {
  ModesResult r;
  std::string error;
  EXPECT_EQ(ComputeModes(s.header, s.scene.excitation(), options, &r, &error), ModesStatus::kOk)
      << error;
  const auto& truth = s.scene.modes();
  EXPECT_EQ(r.modes.size(), truth.size());
  if (r.modes.size() != truth.size()) return r;
  for (std::size_t k = 0; k < truth.size(); ++k) {
    const Mode& m = r.modes[k];
    SCOPED_TRACE("mode " + std::to_string(k + 1) + " at " + std::to_string(m.frequencyHz) + " Hz");
    EXPECT_NEAR(m.frequencyHz / truth[k].frequency_hz, 1.0, 0.005);
    EXPECT_NEAR(m.damping / truth[k].damping, 1.0, 0.10);
    EXPECT_GE(Mac(Widen(m.shape), s.TrueShape(k)), 0.98);
    EXPECT_GE(m.mpc, 0.95);
  }
  // Light that changes in place is not taken for motion.
  EXPECT_EQ(r.kind, ShapeKind::kBrightness) << r.motionShare;
  EXPECT_TRUE(r.modes.empty() || r.modes[0].dispX.empty());
  return r;
}

// The plate's (2,1) mode has halves that move against each other: after
// turning the shape to its dominant phase, the left half is one sign and the
// right half the other.
TEST(ComputeModes, PlateCantileverAndCloseModesAgainstTheTruth) {
  {
    SCOPED_TRACE("plate");
    RenderedScene plate(SmallScene(frfmap::SceneKind::kPlate, {}));
    const ModesResult r = ExpectTheScenesModes(plate, TestOptions());
    ASSERT_EQ(r.modes.size(), 3u);
    const auto& shape = r.modes[1].shape;
    const double theta = DominantPhase(shape);
    double left = 0.0, right = 0.0;
    for (unsigned y = 0; y < r.height; ++y) {
      for (unsigned x = 0; x < r.width; ++x) {
        const double v =
            (std::complex<double>(shape[y * r.width + x]) * std::polar(1.0, -theta)).real();
        (x < r.width / 2 ? left : right) += v;
      }
    }
    EXPECT_LT(left * right, 0.0);
    EXPECT_NEAR(std::abs(left) / std::abs(right), 1.0, 0.2);
  }
  {
    SCOPED_TRACE("cantilever strip");
    RenderedScene strip(SmallScene(frfmap::SceneKind::kStrip, frfmap::CantileverModes(2000.0)));
    ExpectTheScenesModes(strip, TestOptions());
  }
  {
    SCOPED_TRACE("close pair");
    RenderedScene pair(SmallScene(frfmap::SceneKind::kPlate, frfmap::CloseModePairModes(2000.0)));
    ExpectTheScenesModes(pair, TestOptions());
  }
}

TEST(ComputeModes, RefusesWhatItCannotUse) {
  RenderedScene plate(SmallScene(frfmap::SceneKind::kPlate, {}));
  ModesResult r;
  std::string error;
  std::vector<float> shortReference(plate.scene.excitation().begin(),
                                    plate.scene.excitation().end() - 1);
  EXPECT_EQ(ComputeModes(plate.header, shortReference, TestOptions(), &r, &error),
            ModesStatus::kBadReference);
  EXPECT_NE(error.find("999 samples"), std::string::npos) << error;
  ModesOptions noFps = TestOptions();
  noFps.fps = 0.0;
  EXPECT_EQ(ComputeModes(plate.header, plate.scene.excitation(), noFps, &r),
            ModesStatus::kBadOptions);
  // A still scene: nothing above the noise.
  frfmap::SceneSetup still = SmallScene(frfmap::SceneKind::kPlate, {});
  still.modes = {{500.0, 0.01, 1, 1, 0.0}};
  RenderedScene quiet(still, "quiet");
  EXPECT_EQ(ComputeModes(quiet.header, quiet.scene.excitation(), TestOptions(), &r, &error),
            ModesStatus::kNoResponse);
  EXPECT_EQ(ComputeModes(plate.dir.file("none.hdr"), plate.scene.excitation(), TestOptions(), &r),
            ModesStatus::kBadCapture);

  // A cut cube file is found before anything is read.
  const std::string cube = frfmap::DataFilePath(plate.header, frfmap::DataFile::kCube, 1);
  std::filesystem::resize_file(cube, std::filesystem::file_size(cube) - 8);
  EXPECT_EQ(ComputeModes(plate.header, plate.scene.excitation(), TestOptions(), &r, &error),
            ModesStatus::kCubeIncomplete);
  EXPECT_NE(error.find(cube + " is too short"), std::string::npos) << error;
}

TEST(ComputeModes, ShapeMeasures) {
  EXPECT_EQ(DefaultStride(512, 384, 10000), 4);
  EXPECT_EQ(DefaultStride(50, 50, 10000), 1);
  using cf = std::complex<float>;
  EXPECT_NEAR(PhaseCollinearity({cf(1, 1), cf(-2, -2), cf(0.5f, 0.5f)}), 1.0, 1e-6);
  EXPECT_NEAR(PhaseCollinearity({cf(1, 0), cf(0, 1)}), 0.0, 1e-6);
  EXPECT_EQ(PhaseCollinearity({cf(0, 0)}), 0.0);
  // Turned by -theta the values are real and the largest is positive.
  const double theta = DominantPhase({cf(0, -1), cf(0, 3)});
  EXPECT_NEAR((std::complex<double>(0, 3) * std::polar(1.0, -theta)).real(), 3.0, 1e-9);
  EXPECT_NEAR(Mac({{1, 0}, {2, 0}}, {{0, 2}, {0, 4}}), 1.0, 1e-12);
  EXPECT_NEAR(Mac({{1, 0}, {0, 0}}, {{0, 0}, {1, 0}}), 0.0, 1e-12);
}

}  // namespace
}  // namespace frfcam::modes
