// The moving beam against its own truth: the frames are the true warp of the
// resting image by the known displacements, and the modal coordinates the
// known transfer functions times the force.
#include "frfmap/beam_scene.h"

#include <gtest/gtest.h>

#include <cmath>
#include <thread>
#include <vector>

namespace frfcam::frfmap {
namespace {

BeamSetup SmallBeam() {
  BeamSetup s;
  s.width = 40;
  s.height = 96;
  s.frames = 1000;
  return s;
}

std::vector<std::uint16_t> Render(const BeamScene& scene, std::int32_t f) {
  std::vector<std::uint16_t> v(static_cast<std::size_t>(scene.setup().width) *
                               scene.setup().height);
  scene.Frame(f, v.data());
  return v;
}

TEST(BeamScene, FramesAreDeterministicAcrossThreads) {
  BeamSetup setup = SmallBeam();
  setup.frames = 64;
  const BeamScene scene(setup);
  std::vector<std::vector<std::uint16_t>> serial, parallel(64);
  for (std::int32_t f = 0; f < 64; ++f) serial.push_back(Render(scene, f));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (std::int32_t f = t; f < 64; f += 4) parallel[f] = Render(scene, f);
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(serial, parallel);
  EXPECT_EQ(Render(BeamScene(setup), 5), serial[5]);
  setup.seed = 2;
  EXPECT_NE(Render(BeamScene(setup), 5), serial[5]);
  EXPECT_THROW(scene.Frame(64, serial[0].data()), std::out_of_range);
}

// Over a whole period the displacement averages out: a row halfway along
// the beam, noise and all, averages to its resting brightness plus the
// second-order bias, half the curvature times the displacement's variance.
TEST(BeamScene, MeanOfMovingRowIsTheRestingRow) {
  const BeamScene scene{BeamSetup{}};
  const BeamRect beam = scene.beam();
  const int y = (beam.y0 + beam.y1) / 2;
  const int w = scene.setup().width;
  const std::int32_t frames = scene.setup().frames;
  std::vector<double> sum(w, 0.0);
  std::vector<std::uint16_t> frame(static_cast<std::size_t>(w) * scene.setup().height);
  double variance = 0.0;
  for (std::int32_t f = 0; f < frames; ++f) {
    scene.Frame(f, frame.data());
    for (int x = 0; x < w; ++x) sum[x] += frame[y * w + x];
    double u = 0.0;
    for (std::size_t k = 0; k < 3; ++k) u += scene.Modal(k, f) * scene.Displacement(k, w / 2, y);
    variance += u * u / frames;
  }
  ASSERT_GT(variance, 0.05 * 0.05) << "the row hardly moves";
  double err2 = 0.0;
  for (int x = 2; x < w - 2; ++x) {
    auto rest = [&](int dx) { return scene.Rest(x + dx, y); };
    const double curve = (-rest(-2) + 16 * rest(-1) - 30 * rest(0) + 16 * rest(1) - rest(2)) / 12.0;
    const double err = sum[x] / frames - (rest(0) + 0.5 * curve * variance);
    EXPECT_LT(std::abs(err), 2.0) << "x " << x;
    err2 += err * err;
  }
  EXPECT_LT(std::sqrt(err2 / (w - 4)), 0.8);
}

// Near the tip, the brightness change is -I' u to first order; the true
// warp also has the +I'' u^2 / 2 term, which a linearised renderer lacks.
TEST(BeamScene, BrightnessChangeIsTheImageWarp) {
  BeamSetup setup;
  setup.noise = 0.0;
  setup.motion = 0.3;
  const BeamScene scene(setup);
  const BeamRect beam = scene.beam();
  // The frame whose tip is nearest half a pixel away from rest.
  std::int32_t frame = 0;
  auto tip = [&](std::int32_t f) {
    double u = 0.0;
    for (std::size_t k = 0; k < scene.setup().modes.size(); ++k) u += scene.Modal(k, f);
    return u;
  };
  for (std::int32_t f = 0; f < setup.frames; ++f) {
    if (std::abs(std::abs(tip(f)) - 0.5) < std::abs(std::abs(tip(frame)) - 0.5)) frame = f;
  }
  const std::vector<std::uint16_t> image = Render(scene, frame);
  const int w = setup.width;
  double first2 = 0.0, second2 = 0.0, change2 = 0.0;
  for (int y = beam.y0; y < beam.y0 + (beam.y1 - beam.y0) / 5; ++y) {
    double u = 0.0;
    for (std::size_t k = 0; k < 3; ++k)
      u += scene.Modal(k, frame) * scene.Displacement(k, w / 2, y);
    for (int x = beam.x0 - 2; x < beam.x1 + 2; ++x) {
      auto rest = [&](int dx) { return scene.Rest(x + dx, y); };
      const double slope = (rest(-2) - 8 * rest(-1) + 8 * rest(1) - rest(2)) / 12.0;
      const double curve =
          (-rest(-2) + 16 * rest(-1) - 30 * rest(0) + 16 * rest(1) - rest(2)) / 12.0;
      const double change = image[y * w + x] - rest(0);
      first2 += std::pow(change + slope * u, 2);
      second2 += std::pow(change + slope * u - 0.5 * curve * u * u, 2);
      change2 += std::pow(slope * u, 2);
    }
  }
  EXPECT_LT(first2, 0.1 * change2) << "not the first-order change";
  EXPECT_LT(second2, 0.25 * first2) << "no second-order term in the data";
}

TEST(BeamScene, ModalSpectrumIsTheFrfTimesTheForce) {
  for (Excitation excitation : {Excitation::kRandom, Excitation::kChirp}) {
    BeamSetup setup = SmallBeam();
    setup.excitation = excitation;
    setup.motion = 0.5;
    const BeamScene scene(setup);
    const auto n = static_cast<std::size_t>(setup.frames);
    Dft dft(n);
    std::vector<double> force(scene.excitation().begin(), scene.excitation().end());
    std::vector<std::complex<double>> force_spectrum(n), modal_spectrum(n);
    dft.ForwardReal(force.data(), force_spectrum.data());
    for (std::size_t k = 0; k < 3; ++k) {
      std::vector<double> q(n);
      for (std::size_t f = 0; f < n; ++f) q[f] = scene.Modal(k, static_cast<std::int32_t>(f));
      EXPECT_NEAR(Rms(q), scene.setup().modes[k].tip_rms_px, 1e-9);
      dft.ForwardReal(q.data(), modal_spectrum.data());
      // Lines 2 Hz apart: below, at and above each mode.
      for (std::size_t line : {10, 30, 125, 350, 480}) {
        const std::complex<double> frf = scene.ModalFrf(k, line * setup.fps / n);
        EXPECT_LT(std::abs(modal_spectrum[line] / force_spectrum[line] - frf), 1e-4 * std::abs(frf))
            << "mode " << k << " line " << line;
      }
    }
  }
}

TEST(BeamScene, HorizontalIsTheUprightTurned) {
  const BeamSetup upright_setup = SmallBeam();
  BeamSetup setup = upright_setup;
  std::swap(setup.width, setup.height);
  setup.horizontal = true;
  const BeamScene upright(upright_setup), lying(setup);
  const std::vector<std::uint16_t> a = Render(upright, 17), b = Render(lying, 17);
  const int w = setup.width;
  for (int y = 0; y < setup.height; ++y) {
    for (int x = 0; x < w; ++x) {
      ASSERT_EQ(b[y * w + x], a[(w - 1 - x) * upright_setup.width + y]) << x << "," << y;
      ASSERT_EQ(lying.Displacement(0, x, y), upright.Displacement(0, y, w - 1 - x));
    }
  }
  EXPECT_EQ(lying.MotionAxis(), 1);
  const BeamRect r = lying.beam();
  EXPECT_LT(r.x0, 5) << "clamped at the left";
  EXPECT_GT(lying.Displacement(0, r.x1 - 1, r.y0), 0.99) << "free at the right";
}

TEST(BeamScene, PlainPatchHasNoTexture) {
  BeamSetup setup;
  setup.noise = 0.0;
  setup.plain_patch = true;
  setup.frames = 200;
  const BeamScene scene(setup);
  const BeamRect patch = scene.plain_patch();
  ASSERT_FALSE(patch.empty());
  const int w = setup.width;
  auto range = [&](const std::vector<std::uint16_t>& image, int y0, int y1) {
    int lo = 4095, hi = 0;
    for (int y = y0; y < y1; ++y) {
      for (int x = patch.x0; x < patch.x1; ++x) {
        lo = std::min<int>(lo, image[y * w + x]);
        hi = std::max<int>(hi, image[y * w + x]);
      }
    }
    return hi - lo;
  };
  for (std::int32_t f = 0; f < setup.frames; f += 7) {
    const std::vector<std::uint16_t> image = Render(scene, f);
    ASSERT_LE(range(image, patch.y0, patch.y1), 1) << "frame " << f;
    ASSERT_GT(range(image, patch.y1 + 4, patch.y1 + 8), 200) << "no speckle below the patch";
    ASSERT_GT(range(image, patch.y0 - 8, patch.y0 - 4), 200) << "no speckle above the patch";
  }
}

}  // namespace
}  // namespace frfcam::frfmap
