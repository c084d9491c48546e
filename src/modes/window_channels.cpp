#include "modes/window_channels.h"

#include <tbb/parallel_for.h>

#include <algorithm>
#include <cmath>

namespace frfcam::modes {

using Eigen::Index;

WindowChannels::WindowChannels(unsigned width, unsigned height, int stride, int radius, Index lines)
    : width_(width), height_(height), radius_(std::max(0, radius)), lines_(lines) {
  const auto step = static_cast<unsigned>(std::max(1, stride));
  for (unsigned y = step / 2; y < height; y += step) rows_.push_back(y);
  for (unsigned x = step / 2; x < width; x += step) cols_.push_back(x);
  const auto span = [&](unsigned c, unsigned n) {
    const long long lo = std::max<long long>(0, static_cast<long long>(c) - radius_);
    const long long hi = std::min<long long>(n - 1, static_cast<long long>(c) + radius_);
    return static_cast<double>(hi - lo + 1);
  };
  for (unsigned y : rows_) {
    for (unsigned x : cols_) pixels_.push_back(span(x, width) * span(y, height));
  }
  bx_.resize(static_cast<Index>(count()), lines);
  by_.resize(static_cast<Index>(count()), lines);
  energy_.resize(static_cast<Index>(count()), lines);
  noise_.assign(count(), 0.0);
}

void WindowChannels::MarkRows(std::vector<char>* needed) const {
  for (unsigned y : rows_) {
    for (int d = -radius_; d <= radius_; ++d) {
      const long long row = static_cast<long long>(y) + d;
      if (row >= 0 && row < static_cast<long long>(height_)) {
        (*needed)[static_cast<std::size_t>(row)] = 1;
      }
    }
  }
}

void WindowChannels::Accumulate(const FlowOperator& flow, const std::complex<float>* plane,
                                Index line) {
  Index w = 0;
  for (unsigned cy : rows_) {
    for (unsigned cx : cols_) {
      std::complex<float> sx, sy;
      float e = 0.0f;
      flow.WindowSums(plane, 0, cx, cy, &sx, &sy, &e);
      bx_(w, line) = sx;
      by_(w, line) = sy;
      energy_(w, line) = e;
      ++w;
    }
  }
}

void WindowChannels::Displacement(const FlowOperator& flow, std::size_t w, Index line,
                                  std::complex<float>* ux, std::complex<float>* uy) const {
  const std::size_t p = std::size_t{centreY(w)} * width_ + centreX(w);
  flow.Solve(p, bx_(static_cast<Index>(w), line), by_(static_cast<Index>(w), line), ux, uy);
}

// b^H K b = -b^H U over the components seen.
double WindowChannels::Explained(const FlowOperator& flow, std::size_t w, Index line) const {
  std::complex<float> ux, uy;
  Displacement(flow, w, line, &ux, &uy);
  const FlowSeen seen = flow.seen(std::size_t{centreY(w)} * width_ + centreX(w));
  double e = 0.0;
  if (seen & kSeesX) e -= (std::conj(bx_(static_cast<Index>(w), line)) * ux).real();
  if (seen & kSeesY) e -= (std::conj(by_(static_cast<Index>(w), line)) * uy).real();
  return e;
}

int WindowChannels::Degrees(const FlowOperator& flow, std::size_t w) const {
  const FlowSeen seen = flow.seen(std::size_t{centreY(w)} * width_ + centreX(w));
  return (seen & kSeesX ? 1 : 0) + (seen & kSeesY ? 1 : 0);
}

double WindowChannels::EstimateNoise(const FlowOperator& flow) {
  tbb::parallel_for(std::size_t{0}, count(), [&](std::size_t w) {
    std::vector<double> rest(static_cast<std::size_t>(lines_));
    for (Index b = 0; b < lines_; ++b) {
      rest[static_cast<std::size_t>(b)] = energy_(static_cast<Index>(w), b) - Explained(flow, w, b);
    }
    auto mid = rest.begin() + static_cast<std::ptrdiff_t>(rest.size() / 2);
    std::nth_element(rest.begin(), mid, rest.end());
    noise_[w] = std::max(0.0, *mid) / std::max(1.0, pixels_[w] - Degrees(flow, w));
  });
  std::vector<double> textured;
  for (std::size_t w = 0; w < count(); ++w) {
    if (Degrees(flow, w) > 0) textured.push_back(noise_[w]);
  }
  if (textured.empty()) return 0.0;
  auto mid = textured.begin() + static_cast<std::ptrdiff_t>(textured.size() / 2);
  std::nth_element(textured.begin(), mid, textured.end());
  return *mid;
}

double WindowChannels::MotionShare(const FlowOperator& flow, std::vector<std::size_t>* seen) const {
  seen->clear();
  double above = 0.0, moving = 0.0;
  const auto lines = static_cast<double>(lines_);
  for (std::size_t w = 0; w < count(); ++w) {
    if (Degrees(flow, w) == 0) continue;
    seen->push_back(w);
    double total = 0.0, fitted = 0.0;
    for (Index b = 0; b < lines_; ++b) {
      total += energy_(static_cast<Index>(w), b);
      fitted += Explained(flow, w, b);
    }
    above += total - pixels_[w] * noise_[w] * lines;
    moving += fitted - Degrees(flow, w) * noise_[w] * lines;
  }
  return above > 0.0 ? std::clamp(moving / above, 0.0, 1.0) : 0.0;
}

Eigen::MatrixXcf WindowChannels::Whitened(const FlowOperator& flow,
                                          const std::vector<std::size_t>& seen,
                                          std::vector<Column>* columns) const {
  columns->clear();
  for (std::size_t w : seen) {
    const FlowSeen sees = flow.seen(std::size_t{centreY(w)} * width_ + centreX(w));
    if ((sees & kSeesX) && noise_[w] > 0.0) columns->push_back({w, 0});
    if ((sees & kSeesY) && noise_[w] > 0.0) columns->push_back({w, 1});
  }
  Eigen::MatrixXcf y(lines_, static_cast<Index>(columns->size()));
  tbb::parallel_for(std::size_t{0}, columns->size(), [&](std::size_t c) {
    const Column col = (*columns)[c];
    const std::size_t p = std::size_t{centreY(col.window)} * width_ + centreX(col.window);
    const double gain = col.component == 0 ? flow.NoiseGainX(p) : flow.NoiseGainY(p);
    const auto weight = static_cast<float>(1.0 / std::sqrt(noise_[col.window] * gain));
    for (Index b = 0; b < lines_; ++b) {
      std::complex<float> ux, uy;
      Displacement(flow, col.window, b, &ux, &uy);
      y(b, static_cast<Index>(c)) = (col.component == 0 ? ux : uy) * weight;
    }
  });
  return y;
}

}  // namespace frfcam::modes
