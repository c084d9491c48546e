#include "chart_raster.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

namespace frfcam::cli {

namespace {

using Rgb = std::array<std::uint8_t, 3>;

// 3 x 5 glyphs of the characters tick labels need, one row per 3 bits.
const char* Glyph(char c) {
  switch (c) {
    case '0':
      return "\7\5\5\5\7";
    case '1':
      return "\2\6\2\2\7";
    case '2':
      return "\7\1\7\4\7";
    case '3':
      return "\7\1\3\1\7";
    case '4':
      return "\5\5\7\1\1";
    case '5':
      return "\7\4\7\1\7";
    case '6':
      return "\7\4\7\5\7";
    case '7':
      return "\7\1\1\2\2";
    case '8':
      return "\7\5\7\5\7";
    case '9':
      return "\7\5\7\1\7";
    case '.':
      return "\0\0\0\0\2";
    case '-':
      return "\0\0\7\0\0";
    default:
      return "\0\0\0\0\0";
  }
}

class Canvas {
 public:
  Canvas(unsigned w, unsigned h) : w_(w), h_(h), rgb_(static_cast<std::size_t>(w) * h * 3, 255) {}

  void Dot(int x, int y, Rgb c) {
    if (x < 0 || y < 0 || x >= static_cast<int>(w_) || y >= static_cast<int>(h_)) return;
    std::uint8_t* p = &rgb_[(static_cast<std::size_t>(y) * w_ + static_cast<std::size_t>(x)) * 3];
    p[0] = c[0], p[1] = c[1], p[2] = c[2];
  }
  // A line of width 1, optionally dashed (on / off pixels).
  void Line(double x0, double y0, double x1, double y1, Rgb c, int dash = 0) {
    const int steps = static_cast<int>(std::max(std::abs(x1 - x0), std::abs(y1 - y0))) + 1;
    for (int i = 0; i <= steps; ++i) {
      if (dash > 0 && (i / dash) % 2 == 1) continue;
      const double t = static_cast<double>(i) / steps;
      Dot(static_cast<int>(std::lround(x0 + t * (x1 - x0))),
          static_cast<int>(std::lround(y0 + t * (y1 - y0))), c);
    }
  }
  void Disc(double cx, double cy, double r, Rgb c, bool filled) {
    for (int dy = -static_cast<int>(r) - 1; dy <= r + 1; ++dy) {
      for (int dx = -static_cast<int>(r) - 1; dx <= r + 1; ++dx) {
        const double d = std::hypot(dx, dy);
        if (filled ? d <= r : std::abs(d - r) < 0.6) {
          Dot(static_cast<int>(std::lround(cx)) + dx, static_cast<int>(std::lround(cy)) + dy, c);
        }
      }
    }
  }
  void Text(int x, int y, const std::string& s, Rgb c, int scale = 2) {
    for (char ch : s) {
      const char* g = Glyph(ch);
      for (int row = 0; row < 5; ++row) {
        for (int col = 0; col < 3; ++col) {
          if ((g[row] >> (2 - col)) & 1) {
            for (int a = 0; a < scale; ++a) {
              for (int b = 0; b < scale; ++b) Dot(x + col * scale + a, y + row * scale + b, c);
            }
          }
        }
      }
      x += 4 * scale;
    }
  }
  std::vector<std::uint8_t> Take() { return std::move(rgb_); }

 private:
  unsigned w_, h_;
  std::vector<std::uint8_t> rgb_;
};

std::string Short(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%g", v);
  return buf;
}

}  // namespace

std::vector<std::uint8_t> StabilisationChartRgb(const ChartInput& chart, unsigned width,
                                                unsigned height) {
  Canvas c(width, height);
  const double left = 60, right = 20, top = 20, bottom = 40;
  const double pw = width - left - right, ph = height - top - bottom;

  double fMin = INFINITY, fMax = -INFINITY;
  int oMin = INT32_MAX, oMax = INT32_MIN;
  const auto widen = [&](double f) {
    if (std::isfinite(f)) fMin = std::min(fMin, f), fMax = std::max(fMax, f);
  };
  for (const auto& o : chart.orders) {
    oMin = std::min(oMin, o.order), oMax = std::max(oMax, o.order);
    for (const auto* v : {&o.s, &o.f, &o.d, &o.o}) std::for_each(v->begin(), v->end(), widen);
  }
  std::for_each(chart.lineHz.begin(), chart.lineHz.end(), widen);
  std::for_each(chart.selectedHz.begin(), chart.selectedHz.end(), widen);
  if (!(fMax > fMin)) fMin = 0, fMax = 1;
  if (oMin > oMax) oMin = 0, oMax = 1;
  if (oMin == oMax) --oMin, ++oMax;
  const auto X = [&](double f) { return left + (f - fMin) / (fMax - fMin) * pw; };
  const auto Y = [&](double o) { return top + ph - (o - (oMin - 0.5)) / (oMax - oMin + 1.0) * ph; };

  // The summed magnitude behind everything, on a log scale over the height.
  if (chart.sumMagnitude.size() == chart.lineHz.size() && !chart.sumMagnitude.empty()) {
    double lo = INFINITY, hi = -INFINITY;
    for (double m : chart.sumMagnitude) {
      if (m > 0 && std::isfinite(m))
        lo = std::min(lo, std::log10(m)), hi = std::max(hi, std::log10(m));
    }
    if (hi > lo) {
      double px = NAN, py = NAN;
      for (std::size_t i = 0; i < chart.lineHz.size(); ++i) {
        const double m = chart.sumMagnitude[i];
        if (!(m > 0) || !std::isfinite(m)) continue;
        const double x = X(chart.lineHz[i]), y = top + ph - (std::log10(m) - lo) / (hi - lo) * ph;
        if (std::isfinite(px)) c.Line(px, py, x, y, {176, 176, 176});
        px = x, py = y;
      }
    }
  }
  // Frame and ticks.
  const Rgb black{0, 0, 0};
  c.Line(left, top, left + pw, top, black);
  c.Line(left, top + ph, left + pw, top + ph, black);
  c.Line(left, top, left, top + ph, black);
  c.Line(left + pw, top, left + pw, top + ph, black);
  const double fStep = TickStep(fMax - fMin, 8);
  for (double f = std::ceil(fMin / fStep) * fStep; f <= fMax + 1e-9 * fStep; f += fStep) {
    c.Line(X(f), top + ph, X(f), top + ph + 5, black);
    const std::string label = Short(f);
    c.Text(static_cast<int>(X(f)) - static_cast<int>(label.size()) * 4,
           static_cast<int>(top + ph + 9), label, black);
  }
  const double oStep = std::max(1.0, TickStep(oMax - oMin, 8));
  for (double o = std::ceil(oMin / oStep) * oStep; o <= oMax; o += oStep) {
    c.Line(left - 5, Y(o), left, Y(o), black);
    const std::string label = Short(o);
    c.Text(static_cast<int>(left) - 10 - static_cast<int>(label.size()) * 8,
           static_cast<int>(Y(o)) - 5, label, black);
  }
  for (double f : chart.selectedHz) c.Line(X(f), top, X(f), top + ph, {214, 39, 40}, 5);
  for (const auto& o : chart.orders) {
    const double y = Y(o.order);
    for (double f : o.o) c.Disc(X(f), y, 1.3, {127, 127, 127}, true);
    for (double f : o.d) {
      c.Line(X(f) - 3.5, y, X(f) + 3.5, y, {255, 127, 14});
      c.Line(X(f), y - 3.5, X(f), y + 3.5, {255, 127, 14});
    }
    for (double f : o.f) c.Disc(X(f), y, 3.2, {44, 160, 44}, false);
    for (double f : o.s) c.Disc(X(f), y, 3.2, {31, 119, 180}, true);
  }
  return c.Take();
}

}  // namespace frfcam::cli
