// The streamed per-pixel residue fit against a direct least-squares solve of
// every pixel, with chunks of planes small enough that both read buffers
// take turns many times and a pixel count that leaves a partial task.
#include "modes/shape_fit.h"

#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <numbers>

#include "frfmap/fft.h"
#include "frfmap/layout.h"
#include "modes_fixture.h"
#include "stability/significance.h"

namespace frfcam::modes {
namespace {

using test::RenderedScene;
using test::SmallScene;

TEST(FitShapes, EveryPixelEqualsTheDirectSolve) {
  // 71 x 43 = 3053 pixels: segments of 1024 and a partial one whose last
  // pixel is not in a block of four; a buffer of six planes for the two
  // workers makes groups of three planes and a shorter last one.
  frfmap::SceneSetup setup = SmallScene(frfmap::SceneKind::kPlate, {});
  setup.width = 71;
  setup.height = 43;
  setup.frames = 600;
  RenderedScene s(setup);
  const std::uint32_t pixels = 71u * 43u;
  const std::uint32_t binsTotal = setup.frames / 2 + 1;
  const double binHz = setup.fps / setup.frames;

  std::vector<std::complex<float>> spectrum(binsTotal);
  ASSERT_TRUE(frfmap::ScaledRealDft(s.scene.excitation().data(), setup.frames, spectrum.data()));
  // Two separate runs of bins, as the band looks after unexcited bins are
  // dropped, with a bin between them left out.
  std::vector<std::uint32_t> bins;
  for (std::uint32_t b = 10; b < 120; ++b) {
    if (b != 57) bins.push_back(b);
  }
  const auto lines = static_cast<Eigen::Index>(bins.size());
  stability::RealVector omega(lines);
  std::vector<std::complex<double>> r(bins.size());
  for (Eigen::Index i = 0; i < lines; ++i) {
    omega[i] = 2.0 * std::numbers::pi * bins[i] * binHz;
    r[i] = spectrum[bins[i]];
  }
  stability::RealVector hz(3), damping(3);
  for (int k = 0; k < 3; ++k) {
    hz[k] = s.scene.modes()[k].frequency_hz;
    damping[k] = s.scene.modes()[k].damping;
  }

  frfmap::CubeFileSet cube;
  cube.Reset(s.header, frfmap::CubeLayout::For(pixels, binsTotal));
  cube.SetMode(frfmap::CubeFileSet::Mode::kRead);
  const std::size_t plane = std::size_t{pixels} * sizeof(std::complex<float>);
  ShapeFit fit;
  // Three planes a buffer: 37 chunks, the last one short.
  ASSERT_EQ(FitShapes(cube, pixels, bins, omega, r, hz, damping, 6 * plane + 100, nullptr, &fit),
            ShapeFitStatus::kOk);
  const stability::ComplexMatrix a = stability::ModalDesignMatrix(omega, hz, damping);
  ASSERT_EQ(fit.terms, a.cols());

  // H = X / R of every pixel over the band, then the solve in double.
  stability::ComplexMatrix h(lines, pixels);
  std::vector<std::complex<float>> values(pixels);
  for (Eigen::Index i = 0; i < lines; ++i) {
    ASSERT_EQ(cube.ReadInPlane(bins[i], 0, values.data(), plane), plane);
    for (std::uint32_t p = 0; p < pixels; ++p) h(i, p) = std::complex<double>(values[p]) / r[i];
  }
  const stability::ComplexMatrix direct = a.colPivHouseholderQr().solve(h);  // terms x pixels
  const stability::ComplexMatrix gram = a.adjoint() * a;
  int wrong = 0;
  for (Eigen::Index t = 0; t < a.cols(); ++t) {
    const double largest = direct.row(t).cwiseAbs().maxCoeff();
    for (std::uint32_t p = 0; p < pixels; ++p) {
      const std::complex<double> got(fit.coefficients[p + t * pixels]);
      if (std::abs(got - direct(t, p)) > 2e-4 * largest) {
        if (++wrong <= 5)
          ADD_FAILURE() << "term " << t << " pixel " << p << ": " << got << " vs " << direct(t, p);
      }
    }
  }
  EXPECT_EQ(wrong, 0);
  // Quality: the explained share of each pixel's energy over the band.
  double lowest = 1.0;
  for (std::uint32_t p = 0; p < pixels; ++p) {
    const Eigen::VectorXcd c = direct.col(p);
    const double energy = h.col(p).squaredNorm();
    const double explained =
        energy > 0 ? std::min(1.0, (c.adjoint() * gram * c)(0).real() / energy) : 0.0;
    EXPECT_NEAR(fit.quality[p], explained, 1e-3) << "pixel " << p;
    lowest = std::min(lowest, explained);
  }
  // Not a check of end values only: the scene's noise leaves pixels between.
  EXPECT_LT(lowest, 0.999);
}

}  // namespace
}  // namespace frfcam::modes
