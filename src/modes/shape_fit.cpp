#include "modes/shape_fit.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/parallel_invoke.h>

#include <Eigen/Dense>
#include <algorithm>
#include <atomic>
#include <cmath>
#include <new>

#include "platform/platform.h"
#include "stability/significance.h"

namespace frfcam::modes {

namespace {

using Eigen::Index;
using MatrixXcfCol = Eigen::Matrix<std::complex<float>, Eigen::Dynamic, Eigen::Dynamic>;

// Pixels per task: one plane's share of a task (16 KiB) stays in the first
// level cache while every term is accumulated from it, so each value read
// from the cube crosses the memory bus once more.
constexpr Index kRowsPerTask = 2048;

// acc[t][i] += x[i] * w[t] for every term t, and energy[i] += |x[i]|^2 * e,
// over n interleaved complex values. Written out on floats (rather than
// std::complex, whose product checks for NaN and infinities) so that it
// vectorises.
FRFCAM_VECTOR_CLONES void AccumulatePlane(const float* __restrict x, Index n,
                                          const std::complex<float>* w, Index terms, float e,
                                          float* const* acc, float* __restrict energy) {
  for (Index t = 0; t < terms; ++t) {
    const float wr = w[t].real(), wi = w[t].imag();
    float* __restrict a = acc[t];
    for (Index i = 0; i < n; ++i) {
      const float xr = x[2 * i], xi = x[2 * i + 1];
      a[2 * i] += xr * wr - xi * wi;
      a[2 * i + 1] += xr * wi + xi * wr;
    }
  }
  for (Index i = 0; i < n; ++i) {
    const float xr = x[2 * i], xi = x[2 * i + 1];
    energy[i] += (xr * xr + xi * xi) * e;
  }
}

}  // namespace

ShapeFitStatus FitShapes(frfmap::CubeFileSet& cube, std::uint32_t pixels,
                         const std::vector<std::uint32_t>& bins, const stability::RealVector& omega,
                         const std::vector<std::complex<double>>& referenceAtBin,
                         const stability::RealVector& modeHz,
                         const stability::RealVector& modeDamping, std::size_t chunkBytes,
                         const std::atomic<bool>* cancel, ShapeFit* out) {
  const auto lines = static_cast<Index>(bins.size());
  const Index p = pixels;

  // The operator, in double precision: equilibrated columns, a
  // rank-revealing solve of the small normal system, and 1/R folded in.
  stability::ComplexMatrix a = stability::ModalDesignMatrix(omega, modeHz, modeDamping);
  const Index terms = a.cols();
  stability::RealVector scale = stability::RealVector::Ones(terms);
  for (Index c = 0; c < terms; ++c) {
    const double n = a.col(c).norm();
    if (n > 0.0 && std::isfinite(n)) scale[c] = n;
    a.col(c) /= scale[c];
  }
  const stability::ComplexMatrix gram = a.adjoint() * a;
  const stability::ComplexMatrix pinv = gram.colPivHouseholderQr().solve(a.adjoint());
  MatrixXcfCol w(lines, terms);
  Eigen::VectorXf energyWeight(lines);
  for (Index b = 0; b < lines; ++b) {
    const std::complex<double> r = referenceAtBin[static_cast<std::size_t>(b)];
    for (Index t = 0; t < terms; ++t) w(b, t) = std::complex<float>(pinv(t, b) / r);
    energyWeight[b] = static_cast<float>(1.0 / std::norm(r));
  }

  MatrixXcfCol coefficients;
  Eigen::VectorXf energy;
  try {
    coefficients = MatrixXcfCol::Zero(p, terms);
    energy = Eigen::VectorXf::Zero(p);
  } catch (const std::bad_alloc&) {
    return ShapeFitStatus::kOutOfMemory;
  }

  // Chunks of planes, plane after plane (a pixels x bins matrix,
  // column-major), in two buffers of half of chunkBytes each (at least one
  // plane): while the pixels of one chunk are fitted, the next is read.
  const std::size_t planeBytes = static_cast<std::size_t>(p) * sizeof(std::complex<float>);
  const Index maxPlanes =
      std::min<Index>(lines, std::max<Index>(1, static_cast<Index>(chunkBytes / 2 / planeBytes)));
  std::vector<std::complex<float>> buffers[2];
  try {
    for (auto& b : buffers) b.resize(static_cast<std::size_t>(maxPlanes) * p);
  } catch (const std::bad_alloc&) {
    return ShapeFitStatus::kOutOfMemory;
  }
  // Every cube file is opened on this thread first (the set opens lazily);
  // positioned reads on open files then run side by side.
  {
    unsigned lastFile = 0;
    for (std::uint32_t b : bins) {
      const unsigned file = cube.layout().Locate(b).file;
      if (file != lastFile && cube.ReadInPlane(b, 0, buffers[0].data(), 8) != 8) {
        return ShapeFitStatus::kShortCube;
      }
      lastFile = file;
    }
  }
  std::atomic<bool> shortRead{false};
  const auto readChunk = [&](Index first, std::vector<std::complex<float>>& buffer) {
    const Index count = std::min(maxPlanes, lines - first);
    tbb::parallel_for(Index{0}, count, [&](Index b) {
      if (cube.ReadInPlane(bins[static_cast<std::size_t>(first + b)], 0,
                           buffer.data() + static_cast<std::size_t>(b) * p,
                           planeBytes) != planeBytes) {
        shortRead.store(true);
      }
    });
  };
  const auto fitChunk = [&](Index first, const std::vector<std::complex<float>>& buffer) {
    const Index count = std::min(maxPlanes, lines - first);
    const auto* base = reinterpret_cast<const float*>(buffer.data());
    tbb::parallel_for(tbb::blocked_range<Index>(0, (p + kRowsPerTask - 1) / kRowsPerTask),
                      [&](const tbb::blocked_range<Index>& range) {
                        std::vector<float*> acc(static_cast<std::size_t>(terms));
                        std::vector<std::complex<float>> wb(static_cast<std::size_t>(terms));
                        for (Index task = range.begin(); task != range.end(); ++task) {
                          const Index r0 = task * kRowsPerTask;
                          const Index n = std::min(kRowsPerTask, p - r0);
                          for (Index t = 0; t < terms; ++t) {
                            acc[static_cast<std::size_t>(t)] =
                                reinterpret_cast<float*>(coefficients.col(t).data() + r0);
                          }
                          for (Index b = 0; b < count; ++b) {
                            for (Index t = 0; t < terms; ++t) {
                              wb[static_cast<std::size_t>(t)] = w(first + b, t);
                            }
                            AccumulatePlane(base + 2 * (b * p + r0), n, wb.data(), terms,
                                            energyWeight[first + b], acc.data(),
                                            energy.data() + r0);
                          }
                        }
                      });
  };
  readChunk(0, buffers[0]);
  int current = 0;
  for (Index first = 0; first < lines; first += maxPlanes) {
    if (shortRead.load()) return ShapeFitStatus::kShortCube;
    if (cancel != nullptr && cancel->load(std::memory_order_relaxed)) {
      return ShapeFitStatus::kCancelled;
    }
    const Index next = first + maxPlanes;
    if (next < lines) {
      tbb::parallel_invoke([&] { readChunk(next, buffers[1 - current]); },
                           [&] { fitChunk(first, buffers[current]); });
    } else {
      fitChunk(first, buffers[current]);
    }
    current = 1 - current;
  }
  if (shortRead.load()) return ShapeFitStatus::kShortCube;

  // Explained energy c^H G c of each pixel, against its energy over the band.
  out->quality.assign(static_cast<std::size_t>(p), 0.0f);
  // Row by row, c^H G c = sum_k conj(c_k) (G^T c)_k: one product per block.
  const Eigen::MatrixXcf gt = gram.transpose().cast<std::complex<float>>();
  tbb::parallel_for(
      tbb::blocked_range<Index>(0, p, kRowsPerTask), [&](const tbb::blocked_range<Index>& range) {
        const auto c = coefficients.middleRows(range.begin(), range.size());
        const Eigen::VectorXf explained = c.conjugate().cwiseProduct(c * gt).rowwise().sum().real();
        for (Index i = 0; i < explained.size(); ++i) {
          const float e = energy[range.begin() + i];
          out->quality[static_cast<std::size_t>(range.begin() + i)] =
              e > 0.0f ? std::clamp(explained[i] / e, 0.0f, 1.0f) : 0.0f;
        }
      });
  for (Index t = 0; t < terms; ++t) {
    coefficients.col(t) /= static_cast<float>(scale[t]);
  }
  out->terms = static_cast<int>(terms);
  out->coefficients.assign(coefficients.data(), coefficients.data() + coefficients.size());
  return ShapeFitStatus::kOk;
}

}  // namespace frfcam::modes
