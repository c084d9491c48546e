#include "modes/optical_flow.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <cmath>
#include <numbers>

namespace frfcam::modes {

namespace {

// Derivative of a line of n values at i, with stride `step` between them.
inline float Derivative(const float* v, std::ptrdiff_t i, std::ptrdiff_t n, std::ptrdiff_t step,
                        bool fivePoint) {
  if (fivePoint && i >= 2 && i + 2 < n) {
    return (v[(i - 2) * step] - 8.0f * v[(i - 1) * step] + 8.0f * v[(i + 1) * step] -
            v[(i + 2) * step]) /
           12.0f;
  }
  if (i >= 1 && i + 1 < n) return 0.5f * (v[(i + 1) * step] - v[(i - 1) * step]);
  if (n < 2) return 0.0f;
  return i == 0 ? v[step] - v[0] : v[i * step] - v[(i - 1) * step];
}

// In-place box sums of radius r along lines of a w x h raster of `Channels`
// interleaved values per pixel, first along rows then along columns; the
// window is clipped at the borders.
template <typename T>
void BoxSum(std::vector<T>& v, unsigned w, unsigned h, int channels, int r) {
  const auto pass = [&](std::size_t lines, std::size_t length, std::size_t lineStep,
                        std::size_t step) {
    tbb::parallel_for(tbb::blocked_range<std::size_t>(0, lines, 16),
                      [&](const tbb::blocked_range<std::size_t>& range) {
                        std::vector<T> line(length * channels);
                        for (std::size_t l = range.begin(); l != range.end(); ++l) {
                          T* base = v.data() + l * lineStep * channels;
                          for (std::size_t i = 0; i < length; ++i) {
                            for (int c = 0; c < channels; ++c) {
                              line[i * channels + c] = base[i * step * channels + c];
                            }
                          }
                          for (int c = 0; c < channels; ++c) {
                            T sum{};
                            const auto len = static_cast<std::ptrdiff_t>(length);
                            for (std::ptrdiff_t i = 0; i < std::min<std::ptrdiff_t>(r, len); ++i) {
                              sum += line[i * channels + c];
                            }
                            for (std::ptrdiff_t i = 0; i < len; ++i) {
                              if (i + r < len) sum += line[(i + r) * channels + c];
                              if (i - r - 1 >= 0) sum -= line[(i - r - 1) * channels + c];
                              base[i * step * channels + c] = sum;
                            }
                          }
                        }
                      });
  };
  pass(h, w, w, 1);  // along rows
  pass(w, h, 1, w);  // along columns
}

}  // namespace

void ImageGradient(const float* image, unsigned width, unsigned height, GradientOperator op,
                   std::vector<float>* gx, std::vector<float>* gy) {
  const std::size_t pixels = std::size_t{width} * height;
  gx->assign(pixels, 0.0f);
  gy->assign(pixels, 0.0f);
  const auto w = static_cast<std::ptrdiff_t>(width);
  const auto h = static_cast<std::ptrdiff_t>(height);
  const bool five = op == GradientOperator::kFivePoint;
  tbb::parallel_for(std::ptrdiff_t{0}, h, [&](std::ptrdiff_t y) {
    const float* row = image + y * w;
    for (std::ptrdiff_t x = 0; x < w; ++x) {
      (*gx)[static_cast<std::size_t>(y * w + x)] = Derivative(row, x, w, 1, five);
      (*gy)[static_cast<std::size_t>(y * w + x)] = Derivative(image + x, y, h, w, five);
    }
  });
  if (op != GradientOperator::kSobel) return;
  // Smoothed across: gx along columns, gy along rows, by (1, 2, 1) / 4.
  const std::vector<float> sx = *gx, sy = *gy;
  tbb::parallel_for(std::ptrdiff_t{0}, h, [&](std::ptrdiff_t y) {
    const std::ptrdiff_t up = std::max<std::ptrdiff_t>(0, y - 1);
    const std::ptrdiff_t down = std::min(h - 1, y + 1);
    for (std::ptrdiff_t x = 0; x < w; ++x) {
      const std::ptrdiff_t left = std::max<std::ptrdiff_t>(0, x - 1);
      const std::ptrdiff_t right = std::min(w - 1, x + 1);
      (*gx)[static_cast<std::size_t>(y * w + x)] =
          0.25f * (sx[static_cast<std::size_t>(up * w + x)] +
                   2.0f * sx[static_cast<std::size_t>(y * w + x)] +
                   sx[static_cast<std::size_t>(down * w + x)]);
      (*gy)[static_cast<std::size_t>(y * w + x)] =
          0.25f * (sy[static_cast<std::size_t>(y * w + left)] +
                   2.0f * sy[static_cast<std::size_t>(y * w + x)] +
                   sy[static_cast<std::size_t>(y * w + right)]);
    }
  });
}

double GradientNoiseGain(GradientOperator op) {
  switch (op) {
    case GradientOperator::kCentral:
      return 0.5;
    case GradientOperator::kFivePoint:
      return (1.0 + 64.0 + 64.0 + 1.0) / 144.0;
    case GradientOperator::kSobel:
      return 0.5 * (1.0 + 4.0 + 1.0) / 16.0;
  }
  return 1.0;
}

void FlowOperator::Build(const std::vector<float>& gx, const std::vector<float>& gy, unsigned width,
                         unsigned height, double pixelNoise, const FlowOptions& options) {
  width_ = width;
  height_ = height;
  radius_ = std::max(0, options.radius);
  gx_ = gx;
  gy_ = gy;
  const std::size_t pixels = std::size_t{width} * height;
  m_.resize(3 * pixels);
  for (std::size_t p = 0; p < pixels; ++p) {
    m_[3 * p] = double{gx[p]} * gx[p];
    m_[3 * p + 1] = double{gx[p]} * gy[p];
    m_[3 * p + 2] = double{gy[p]} * gy[p];
  }
  BoxSum(m_, width, height, 3, radius_);

  std::vector<double> largest(pixels);
  for (std::size_t p = 0; p < pixels; ++p) {
    const double a = m_[3 * p], b = m_[3 * p + 1], c = m_[3 * p + 2];
    largest[p] = 0.5 * (a + c) + std::sqrt(0.25 * (a - c) * (a - c) + b * b);
  }
  double floor = 0.0;
  if (pixels > 0) {
    std::vector<double> sorted = largest;
    auto at = sorted.begin() + static_cast<std::ptrdiff_t>((pixels - 1) * 99 / 100);
    std::nth_element(sorted.begin(), at, sorted.end());
    floor = options.minTexture * *at;
  }
  const double side = 2.0 * radius_ + 1.0;
  floor = std::max(floor, options.minGradientSnr * options.minGradientSnr * side * side *
                              GradientNoiseGain(options.gradient) * pixelNoise);

  k_.assign(3 * pixels, 0.0f);
  seen_.assign(pixels, kSeesNone);
  for (std::size_t p = 0; p < pixels; ++p) {
    const double a = m_[3 * p], b = m_[3 * p + 1], c = m_[3 * p + 2];
    const double big = largest[p];
    if (!(big > 0.0) || big < floor) continue;
    const double small = a + c - big;
    if (small >= options.minIsotropy * big) {
      const double det = a * c - b * b;
      k_[3 * p] = static_cast<float>(c / det);
      k_[3 * p + 1] = static_cast<float>(-b / det);
      k_[3 * p + 2] = static_cast<float>(a / det);
      seen_[p] = kSeesBoth;
      continue;
    }
    // An edge: the gradients point along angle phi of the larger eigenvector.
    const double phi = 0.5 * std::atan2(2.0 * b, a - c);
    if (std::abs(phi) <= options.maxEdgeTilt) {
      k_[3 * p] = static_cast<float>(1.0 / a);
      seen_[p] = kSeesX;
    } else if (std::abs(std::abs(phi) - 0.5 * std::numbers::pi) <= options.maxEdgeTilt) {
      k_[3 * p + 2] = static_cast<float>(1.0 / c);
      seen_[p] = kSeesY;
    }
  }
}

// For both components, the estimate's covariance per unit pixel noise is
// K M K = K; for one, 1 / Mxx (or 1 / Myy), which is what K holds then.
double FlowOperator::NoiseGainX(std::size_t p) const {
  return seen_[p] & kSeesX ? k_[3 * p] : std::numeric_limits<double>::infinity();
}
double FlowOperator::NoiseGainY(std::size_t p) const {
  return seen_[p] & kSeesY ? k_[3 * p + 2] : std::numeric_limits<double>::infinity();
}

void FlowOperator::Apply(const std::complex<float>* x, std::complex<float>* ux,
                         std::complex<float>* uy,
                         std::vector<std::complex<double>>* scratch) const {
  const std::size_t pixels = std::size_t{width_} * height_;
  // b summed in double: the window's terms cancel in part.
  std::vector<std::complex<double>> own;
  std::vector<std::complex<double>>& b = scratch != nullptr ? *scratch : own;
  b.resize(2 * pixels);
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, pixels, 4096),
                    [&](const tbb::blocked_range<std::size_t>& range) {
                      for (std::size_t p = range.begin(); p != range.end(); ++p) {
                        b[2 * p] = std::complex<double>(x[p]) * static_cast<double>(gx_[p]);
                        b[2 * p + 1] = std::complex<double>(x[p]) * static_cast<double>(gy_[p]);
                      }
                    });
  BoxSum(b, width_, height_, 2, radius_);
  tbb::parallel_for(tbb::blocked_range<std::size_t>(0, pixels, 4096),
                    [&](const tbb::blocked_range<std::size_t>& range) {
                      for (std::size_t p = range.begin(); p != range.end(); ++p) {
                        std::complex<double> u, v;
                        Solve(p, b[2 * p], b[2 * p + 1], &u, &v);
                        ux[p] = std::complex<float>(u);
                        uy[p] = std::complex<float>(v);
                      }
                    });
}

void FlowOperator::WindowSums(const std::complex<float>* rows, unsigned firstRow, unsigned cx,
                              unsigned cy, std::complex<float>* bx, std::complex<float>* by,
                              float* energy) const {
  const int r = radius_;
  const unsigned y0 = cy >= static_cast<unsigned>(r) ? cy - r : 0;
  const unsigned y1 = std::min(height_ - 1, cy + r);
  const unsigned x0 = cx >= static_cast<unsigned>(r) ? cx - r : 0;
  const unsigned x1 = std::min(width_ - 1, cx + r);
  float sxr = 0, sxi = 0, syr = 0, syi = 0, e = 0;
  for (unsigned y = y0; y <= y1; ++y) {
    const std::complex<float>* row = rows + std::size_t{y - firstRow} * width_;
    const float* gxr = gx_.data() + std::size_t{y} * width_;
    const float* gyr = gy_.data() + std::size_t{y} * width_;
    for (unsigned x = x0; x <= x1; ++x) {
      const float re = row[x].real(), im = row[x].imag();
      sxr += gxr[x] * re;
      sxi += gxr[x] * im;
      syr += gyr[x] * re;
      syi += gyr[x] * im;
      e += re * re + im * im;
    }
  }
  *bx = {sxr, sxi};
  *by = {syr, syi};
  *energy = e;
}

}  // namespace frfcam::modes
