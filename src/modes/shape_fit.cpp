#include "modes/shape_fit.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include <Eigen/Dense>
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <new>

#include "platform/platform.h"
#include "stability/significance.h"

namespace frfcam::modes {

namespace {

using Eigen::Index;
using MatrixXcfCol = Eigen::Matrix<std::complex<float>, Eigen::Dynamic, Eigen::Dynamic>;

// Pixels per task of the streaming fit: a group of eight planes' share
// (1 MiB) and the task's accumulators stay in the second level cache.
constexpr Index kSegmentPixels = 16384;
// Pixels per task of the quality pass.
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

// Four interleaved complex values.
using V8 = float __attribute__((vector_size(32)));

// The same sums as AccumulatePlane for four pixels over `count` planes at
// once, with the terms' accumulators held in registers across the planes:
// per plane one load of x and two multiply-adds per term, instead of a load
// and a store of every accumulator. x * w = x wr + swap(x) (-wi, wi).
// `w` holds count x T weights, `e` count energy weights.
template <int T>
[[gnu::always_inline]] inline void AccumulateBlock(const float* x, Index planeFloats, Index count,
                                                   const std::complex<float>* w, const float* e,
                                                   float* const* acc, Index offset, float* energy) {
  V8 a[T], b[T];
  for (int t = 0; t < T; ++t) a[t] = b[t] = V8{};
  V8 sum{};
  for (Index k = 0; k < count; ++k) {
    V8 v;
    std::memcpy(&v, x + k * planeFloats, sizeof v);
    const V8 swapped = __builtin_shufflevector(v, v, 1, 0, 3, 2, 5, 4, 7, 6);
    const std::complex<float>* wk = w + k * T;
    for (int t = 0; t < T; ++t) {
      a[t] += v * wk[t].real();
      b[t] += swapped * wk[t].imag();
    }
    sum += v * v * e[k];
  }
  const V8 sign = {-1.0f, 1.0f, -1.0f, 1.0f, -1.0f, 1.0f, -1.0f, 1.0f};
  for (int t = 0; t < T; ++t) {
    V8 c;
    std::memcpy(&c, acc[t] + offset, sizeof c);
    c += a[t] + b[t] * sign;
    std::memcpy(acc[t] + offset, &c, sizeof c);
  }
  for (int i = 0; i < 4; ++i) energy[i] += sum[2 * i] + sum[2 * i + 1];
}

// AccumulateBlock over the first n - n % 4 pixels of a task for terms
// counts it has been made for; false (nothing done) for other counts.
FRFCAM_VECTOR_CLONES bool AccumulateBlocks(const float* x, Index planeFloats, Index n, Index count,
                                           const std::complex<float>* w, Index terms,
                                           const float* e, float* const* acc, float* energy) {
  const auto run = [&](auto block) {
    for (Index i = 0; i + 4 <= n; i += 4) block(x + 2 * i, 2 * i, energy + i);
  };
#define FRFCAM_TERMS(T)                                                  \
  case T:                                                                \
    run([&](const float* xi, Index offset, float* ei) {                  \
      AccumulateBlock<T>(xi, planeFloats, count, w, e, acc, offset, ei); \
    });                                                                  \
    return true;
  switch (terms) {
    FRFCAM_TERMS(2)
    FRFCAM_TERMS(3)
    FRFCAM_TERMS(4)
    FRFCAM_TERMS(5)
    FRFCAM_TERMS(6)
    FRFCAM_TERMS(7)
    FRFCAM_TERMS(8)
    FRFCAM_TERMS(9)
    FRFCAM_TERMS(10)
    FRFCAM_TERMS(11)
    FRFCAM_TERMS(12)
    default:
      return false;
  }
#undef FRFCAM_TERMS
}

}  // namespace

ShapeFitStatus FitShapes(frfmap::CubeFileSet& cube, std::uint32_t pixels,
                         const std::vector<std::uint32_t>& bins, const stability::RealVector& omega,
                         const std::vector<std::complex<double>>& referenceAtBin,
                         const stability::RealVector& modeHz,
                         const stability::RealVector& modeDamping, std::size_t chunkBytes,
                         const std::atomic<bool>* cancel, ShapeFit* out,
                         const std::function<void(double)>& done) {
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

  // The same weights line by line (terms contiguous), as the blocks read them.
  std::vector<std::complex<float>> weights(static_cast<std::size_t>(lines * terms));
  for (Index b = 0; b < lines; ++b) {
    for (Index t = 0; t < terms; ++t) weights[static_cast<std::size_t>(b * terms + t)] = w(b, t);
  }

  MatrixXcfCol coefficients;
  Eigen::VectorXf energy;
  try {
    coefficients = MatrixXcfCol::Zero(p, terms);
    energy = Eigen::VectorXf::Zero(p);
  } catch (const std::bad_alloc&) {
    return ShapeFitStatus::kOutOfMemory;
  }

  // Every cube file is opened on this thread first (the set opens lazily);
  // positioned reads on open files then run side by side.
  {
    std::complex<float> probe[1];
    unsigned lastFile = 0;
    for (std::uint32_t b : bins) {
      const unsigned file = cube.layout().Locate(b).file;
      if (file != lastFile && cube.ReadInPlane(b, 0, probe, 8) != 8) {
        return ShapeFitStatus::kShortCube;
      }
      lastFile = file;
    }
  }
  // The image in segments of consecutive pixels, each a task: the task
  // reads its part of a group of planes into a buffer of its own and fits
  // it at once, while the values are still in the cache, so each byte
  // crosses the memory bus once. The group is bounded by a share of
  // chunkBytes for each worker.
  const Index segment =
      std::clamp<Index>((p / 8 + 3) / 4 * 4, std::min<Index>(p, 1024), kSegmentPixels);
  const std::size_t segmentBytes = static_cast<std::size_t>(segment) * sizeof(std::complex<float>);
  const auto workers =
      static_cast<std::size_t>(std::max(1, tbb::this_task_arena::max_concurrency()));
  const Index group = std::clamp<Index>(static_cast<Index>(chunkBytes / workers / segmentBytes), 1,
                                        std::min<Index>(lines, 8));
  std::atomic<bool> shortRead{false}, stopped{false}, noMemory{false};
  const Index tasks = (p + segment - 1) / segment;
  std::atomic<Index> finished{0};
  tbb::parallel_for(
      tbb::blocked_range<Index>(0, tasks, 1), [&](const tbb::blocked_range<Index>& range) {
        std::vector<std::complex<float>> buffer;
        try {
          buffer.resize(static_cast<std::size_t>(group * segment));
        } catch (const std::bad_alloc&) {
          noMemory.store(true);
          return;
        }
        const auto* base = reinterpret_cast<const float*>(buffer.data());
        std::vector<float*> acc(static_cast<std::size_t>(terms));
        std::vector<std::complex<float>> wb(static_cast<std::size_t>(terms));
        for (Index task = range.begin(); task != range.end(); ++task) {
          const Index r0 = task * segment;
          const Index n = std::min(segment, p - r0);
          const std::size_t bytes = static_cast<std::size_t>(n) * sizeof(std::complex<float>);
          for (Index t = 0; t < terms; ++t) {
            acc[static_cast<std::size_t>(t)] =
                reinterpret_cast<float*>(coefficients.col(t).data() + r0);
          }
          for (Index first = 0; first < lines; first += group) {
            if (shortRead.load(std::memory_order_relaxed) ||
                (cancel != nullptr && cancel->load(std::memory_order_relaxed))) {
              stopped.store(true);
              return;
            }
            const Index count = std::min(group, lines - first);
            for (Index b = 0; b < count; ++b) {
              if (cube.ReadInPlane(bins[static_cast<std::size_t>(first + b)],
                                   static_cast<std::uint64_t>(r0) * sizeof(std::complex<float>),
                                   buffer.data() + b * segment, bytes) != bytes) {
                shortRead.store(true);
                return;
              }
            }
            // Pixels in blocks of four where the terms allow, the rest
            // plane by plane.
            Index done = 0;
            if (AccumulateBlocks(base, 2 * segment, n, count, weights.data() + first * terms, terms,
                                 energyWeight.data() + first, acc.data(), energy.data() + r0)) {
              done = n - n % 4;
            }
            if (done == n) continue;
            std::vector<float*> tail(acc);
            for (auto& a : tail) a += 2 * done;
            for (Index b = 0; b < count; ++b) {
              for (Index t = 0; t < terms; ++t) wb[static_cast<std::size_t>(t)] = w(first + b, t);
              AccumulatePlane(base + 2 * (b * segment + done), n - done, wb.data(), terms,
                              energyWeight[first + b], tail.data(), energy.data() + r0 + done);
            }
          }
          if (done) done(static_cast<double>(++finished) / static_cast<double>(tasks));
        }
      });
  if (noMemory.load()) return ShapeFitStatus::kOutOfMemory;
  if (shortRead.load()) return ShapeFitStatus::kShortCube;
  if (stopped.load()) return ShapeFitStatus::kCancelled;

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
