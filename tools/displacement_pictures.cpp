#include "displacement_pictures.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <numbers>
#include <vector>

#include "chart_svg.h"
#include "command_error.h"
#include "figure_svg.h"
#include "png_writer.h"

namespace frfcam::cli {

namespace {

constexpr int kGifFrames = 24;
constexpr int kFillPasses = 3;
using Rgb = std::array<double, 3>;

bool Measured(const std::complex<float>* v, std::size_t p) {
  return v != nullptr && std::isfinite(v[p].real()) && std::isfinite(v[p].imag());
}

// What both pictures need from the field, checked once.
struct Prepared {
  unsigned w = 0, h = 0;
  std::size_t n = 0;
  unsigned minSide = 0;
  std::complex<double> turn;  // exp(-i theta)
  double p99 = 0.0;           // of the measured magnitude, in the field's units
  bool anyMeasured = false;
};

// The q-quantile of the finite values value(p), p < n. Large images are
// sampled evenly (at most about a million values): a percentile needs no more,
// and the cost stays linear.
template <typename Fn>
double Quantile(std::size_t n, double q, Fn value, bool* any = nullptr) {
  const std::size_t stride = std::max<std::size_t>(1, n >> 20);
  std::vector<float> v;
  v.reserve(n / stride + 1);
  for (std::size_t p = 0; p < n; p += stride) {
    const float x = value(p);
    if (std::isfinite(x)) v.push_back(x);
  }
  if (any != nullptr) *any = !v.empty();
  if (v.empty()) return 0.0;
  const auto at = v.begin() + static_cast<std::ptrdiff_t>(std::floor(q * (v.size() - 1)));
  std::nth_element(v.begin(), at, v.end());
  return *at;
}

Prepared Prepare(const DisplacementField& f, const std::string& path) {
  if (f.width == 0 || f.height == 0 || f.mean == nullptr) {
    throw CommandError(path + ": no image to draw the displacement on");
  }
  if (f.units != "px" && f.units != "mm") {
    throw CommandError(path + ": displacement units must be px or mm, not '" + f.units + "'");
  }
  if (f.units == "mm" && !(f.unitsPerPx > 0 && std::isfinite(f.unitsPerPx))) {
    throw CommandError(path + ": displacement in mm needs a positive mm per px");
  }
  Prepared p;
  p.w = f.width;
  p.h = f.height;
  p.n = std::size_t{p.w} * p.h;
  p.minSide = std::min(p.w, p.h);
  p.turn = std::polar(1.0, -f.theta);
  p.p99 = Quantile(
      p.n, 0.99,
      [&](std::size_t i) {
        const bool mx = Measured(f.x, i), my = Measured(f.y, i);
        if (!mx && !my) return std::numeric_limits<float>::quiet_NaN();
        return std::sqrt((mx ? std::norm(f.x[i]) : 0.0f) + (my ? std::norm(f.y[i]) : 0.0f));
      },
      &p.anyMeasured);
  if (!std::isfinite(p.p99)) p.p99 = 0.0;
  return p;
}

// The mean frame stretched to 0..1 between its 1st and 99th percentiles, so
// a few saturated or dead pixels do not flatten the picture.
std::vector<float> StretchedMean(const DisplacementField& f, std::size_t n) {
  const auto value = [&](std::size_t p) { return f.mean[p]; };
  const double lo = Quantile(n, 0.01, value), hi = Quantile(n, 0.99, value);
  std::vector<float> grey(n);
  for (std::size_t p = 0; p < n; ++p) {
    const double v = f.mean[p];
    grey[p] = !std::isfinite(v) ? 0.0f
              : hi > lo         ? static_cast<float>(std::clamp((v - lo) / (hi - lo), 0.0, 1.0))
                                : 0.5f;
  }
  return grey;
}

// ---- Drawing into an RGB buffer ------------------------------------------------

struct Canvas {
  unsigned w, h;
  std::vector<std::uint8_t> rgb;

  void Blend(int x, int y, const Rgb& c, double alpha) {
    if (x < 0 || y < 0 || x >= static_cast<int>(w) || y >= static_cast<int>(h) || alpha <= 0) {
      return;
    }
    std::uint8_t* px = &rgb[3 * (std::size_t(y) * w + std::size_t(x))];
    for (int k = 0; k < 3; ++k) {
      px[k] = static_cast<std::uint8_t>(std::lround(px[k] + std::min(alpha, 1.0) * (c[k] - px[k])));
    }
  }

  // Cuts the segment to the canvas (with a pixel to spare for the
  // anti-aliasing), so a wild point costs no more than the picture's width.
  bool Clip(double& x0, double& y0, double& x1, double& y1) const {
    double t0 = 0.0, t1 = 1.0;
    const double dx = x1 - x0, dy = y1 - y0;
    const double p[4] = {-dx, dx, -dy, dy};
    const double q[4] = {x0 + 1, w - x0, y0 + 1, h - y0};
    for (int i = 0; i < 4; ++i) {
      if (p[i] == 0) {
        if (q[i] < 0) return false;
        continue;
      }
      const double r = q[i] / p[i];
      if (p[i] < 0) {
        t0 = std::max(t0, r);
      } else {
        t1 = std::min(t1, r);
      }
      if (t0 > t1) return false;
    }
    const double ax = x0, ay = y0;
    x0 = ax + t0 * dx, y0 = ay + t0 * dy;
    x1 = ax + t1 * dx, y1 = ay + t1 * dy;
    return true;
  }

  // An anti-aliased line (Wu's method): each step along the major axis
  // shares its coverage between the two nearest pixels across it.
  void Line(double x0, double y0, double x1, double y1, const Rgb& c, double alpha) {
    if (!Clip(x0, y0, x1, y1)) return;
    const bool steep = std::abs(y1 - y0) > std::abs(x1 - x0);
    if (steep) std::swap(x0, y0), std::swap(x1, y1);
    if (x0 > x1) std::swap(x0, x1), std::swap(y0, y1);
    const double gradient = x1 > x0 ? (y1 - y0) / (x1 - x0) : 0.0;
    const long last = std::lround(x1);
    for (long x = std::lround(x0); x <= last; ++x) {
      const double y = y0 + gradient * (x - x0);
      const double yf = std::floor(y), f = y - yf;
      const int a = static_cast<int>(x), b = static_cast<int>(yf);
      if (steep) {
        Blend(b, a, c, alpha * (1 - f));
        Blend(b + 1, a, c, alpha * f);
      } else {
        Blend(a, b, c, alpha * (1 - f));
        Blend(a, b + 1, c, alpha * f);
      }
    }
  }

  // A line `width` pixels wide: parallel one-pixel lines side by side.
  void ThickLine(double x0, double y0, double x1, double y1, int width, const Rgb& c,
                 double alpha) {
    const double len = std::hypot(x1 - x0, y1 - y0);
    const double nx = len > 0 ? -(y1 - y0) / len : 0.0, ny = len > 0 ? (x1 - x0) / len : 0.0;
    for (int k = 0; k < width; ++k) {
      const double o = k - (width - 1) / 2.0;
      Line(x0 + o * nx, y0 + o * ny, x1 + o * nx, y1 + o * ny, c, alpha);
    }
  }
};

// Amber for little motion through to red for the 99th percentile and more.
Rgb DeformedColour(double t) {
  t = std::clamp(t, 0.0, 1.0);
  return {255.0 - 35.0 * t, 200.0 * (1.0 - t), 40.0 * t};
}
constexpr Rgb kRestColour = {150, 225, 255};
constexpr double kRestAlpha = 0.45;

// The real shape at a grid point: the mean over the measured pixels within
// `radius`, so one noisy pixel does not kink the grid. Unmeasured when the
// pixel itself is, so the grid keeps to the measured area.
struct Sample {
  double x = 0, y = 0;  // position (px)
  double dx = 0, dy = 0;
  bool measured = false;
};
Sample ShapeAt(const DisplacementField& f, const Prepared& pr, unsigned px, unsigned py,
               int radius) {
  Sample s;
  s.x = px;
  s.y = py;
  const std::size_t c = std::size_t{py} * pr.w + px;
  if (!Measured(f.x, c) && !Measured(f.y, c)) return s;
  s.measured = true;
  double sx = 0, sy = 0;
  int count = 0;
  const int x0 = std::max(0, int(px) - radius), x1 = std::min(int(pr.w) - 1, int(px) + radius);
  const int y0 = std::max(0, int(py) - radius), y1 = std::min(int(pr.h) - 1, int(py) + radius);
  for (int y = y0; y <= y1; ++y) {
    for (int x = x0; x <= x1; ++x) {
      const std::size_t p = std::size_t(y) * pr.w + std::size_t(x);
      const bool mx = Measured(f.x, p), my = Measured(f.y, p);
      if (!mx && !my) continue;
      if (mx) sx += (std::complex<double>(f.x[p]) * pr.turn).real();
      if (my) sy += (std::complex<double>(f.y[p]) * pr.turn).real();
      ++count;
    }
  }
  s.dx = sx / count;
  s.dy = sy / count;
  return s;
}

// Evenly spaced positions over 0..size-1, centred, `spacing` apart.
std::vector<unsigned> GridPositions(unsigned size, unsigned spacing) {
  const unsigned first = ((size - 1) % spacing) / 2;
  std::vector<unsigned> v;
  for (unsigned p = first; p < size; p += spacing) v.push_back(p);
  return v;
}

// Points every `step` pixels along 0..size-1, both ends included.
std::vector<unsigned> LinePoints(unsigned size, unsigned step) {
  std::vector<unsigned> v;
  for (unsigned p = 0; p < size; p += step) v.push_back(p);
  if (v.back() != size - 1) v.push_back(size - 1);
  return v;
}

// ---- Filling unmeasured displacement for the warp ----------------------------

// Replaces the unmeasured (non-finite) entries of v by the mean of the known
// ones within `radius`, in up to `passes` growing rings, and fades the later
// rings towards 0, which is also what lies beyond. Box sums run as sliding
// sums, so the cost does not depend on the radius.
void FillFromNeighbours(std::vector<std::complex<float>>& v, unsigned w, unsigned h, int radius,
                        int passes) {
  constexpr std::uint8_t kUnknown = 255;
  const std::size_t n = std::size_t{w} * h;
  std::vector<std::uint8_t> ring(n);
  std::size_t unknown = 0;
  for (std::size_t p = 0; p < n; ++p) {
    const bool known = std::isfinite(v[p].real()) && std::isfinite(v[p].imag());
    ring[p] = known ? 0 : kUnknown;
    unknown += !known;
  }
  if (unknown == n) {
    std::fill(v.begin(), v.end(), std::complex<float>(0.0f));
    return;
  }
  std::vector<float> hre(n), him(n), hw(n);
  std::vector<double> row(3 * (std::size_t{w} + 1)), acc(3 * std::size_t{w});
  for (int pass = 1; pass <= passes && unknown > 0; ++pass) {
    // Horizontal sums over [x - radius, x + radius] from prefix sums of the row.
    for (unsigned y = 0; y < h; ++y) {
      const std::size_t base = std::size_t{y} * w;
      for (unsigned x = 0; x < w; ++x) {
        const bool known = ring[base + x] != kUnknown;
        row[3 * (x + 1)] = row[3 * x] + (known ? v[base + x].real() : 0.0);
        row[3 * (x + 1) + 1] = row[3 * x + 1] + (known ? v[base + x].imag() : 0.0);
        row[3 * (x + 1) + 2] = row[3 * x + 2] + (known ? 1.0 : 0.0);
      }
      for (unsigned x = 0; x < w; ++x) {
        const std::size_t lo = x > unsigned(radius) ? x - radius : 0;
        const std::size_t hi = std::min<std::size_t>(w, std::size_t{x} + radius + 1);
        hre[base + x] = static_cast<float>(row[3 * hi] - row[3 * lo]);
        him[base + x] = static_cast<float>(row[3 * hi + 1] - row[3 * lo + 1]);
        hw[base + x] = static_cast<float>(row[3 * hi + 2] - row[3 * lo + 2]);
      }
    }
    // Vertical sums as a running window of rows; writes only unknown pixels,
    // whose horizontal sums are already taken.
    std::fill(acc.begin(), acc.end(), 0.0);
    const auto add = [&](long r, double sign) {
      if (r < 0 || r >= long(h)) return;
      const std::size_t base = std::size_t(r) * w;
      for (unsigned x = 0; x < w; ++x) {
        acc[3 * x] += sign * hre[base + x];
        acc[3 * x + 1] += sign * him[base + x];
        acc[3 * x + 2] += sign * hw[base + x];
      }
    };
    for (long r = 0; r < radius; ++r) add(r, 1.0);
    for (long y = 0; y < long(h); ++y) {
      add(y + radius, 1.0);
      add(y - radius - 1, -1.0);
      const std::size_t base = std::size_t(y) * w;
      for (unsigned x = 0; x < w; ++x) {
        if (ring[base + x] != kUnknown || acc[3 * x + 2] < 0.5) continue;
        v[base + x] = {static_cast<float>(acc[3 * x] / acc[3 * x + 2]),
                       static_cast<float>(acc[3 * x + 1] / acc[3 * x + 2])};
        ring[base + x] = static_cast<std::uint8_t>(pass);
        --unknown;
      }
    }
  }
  // The first ring is the structure's own untextured edge: it moves in full.
  for (std::size_t p = 0; p < n; ++p) {
    if (ring[p] == kUnknown) {
      v[p] = 0.0f;
    } else if (ring[p] > 1) {
      v[p] *= static_cast<float>(passes + 1 - ring[p]) / passes;
    }
  }
}

// One displacement component turned to exp(-i theta), unmeasured as NaN.
std::vector<std::complex<float>> Turned(const std::complex<float>* v, std::size_t n,
                                        std::complex<double> turn) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  std::vector<std::complex<float>> out(n, {nan, nan});
  if (v == nullptr) return out;
  for (std::size_t p = 0; p < n; ++p) {
    if (Measured(v, p)) out[p] = std::complex<float>(std::complex<double>(v[p]) * turn);
  }
  return out;
}

}  // namespace

void WriteDisplacementPng(const std::string& path, const DisplacementField& field) {
  const Prepared pr = Prepare(field, path);
  const std::vector<float> grey = StretchedMean(field, pr.n);
  // The background is kept off black and white so the overlay reads on both.
  Canvas canvas{pr.w, pr.h, std::vector<std::uint8_t>(3 * pr.n)};
  for (std::size_t p = 0; p < pr.n; ++p) {
    const auto g = static_cast<std::uint8_t>(std::lround(24.0 + 200.0 * grey[p]));
    canvas.rgb[3 * p] = canvas.rgb[3 * p + 1] = canvas.rgb[3 * p + 2] = g;
  }

  const double target = std::max(4.0, 0.06 * pr.minSide);  // picture px for the 99th percentile
  const double gain = pr.p99 > 0 ? target / pr.p99 : 0.0;  // picture px per field unit
  const double pxPerUnit = field.units == "mm" ? 1.0 / field.unitsPerPx : 1.0;
  char scale[240];
  if (!pr.anyMeasured) {
    std::snprintf(scale, sizeof scale, "no displacement measured: the mean frame alone");
  } else if (gain == 0) {
    std::snprintf(scale, sizeof scale, "the measured displacement is zero: the grid at rest");
  } else {
    std::snprintf(scale, sizeof scale,
                  "deformation drawn %.4gx: 1 px on the picture = %.3g %s per reference unit",
                  gain / pxPerUnit, 1.0 / gain, field.units.c_str());
  }

  if (pr.anyMeasured) {
    const unsigned spacing = std::max(6u, static_cast<unsigned>(std::lround(pr.minSide / 16.0)));
    const unsigned step = std::max(2u, spacing / 4);
    const int radius = static_cast<int>(step / 2);
    const int width = std::max(1, static_cast<int>(std::lround(pr.minSide / 512.0)));
    // One wild pixel must not streak across the picture.
    const double cap = 3.0 * target;
    struct Segment {
      Sample a, b;
    };
    std::vector<Segment> segments;
    const auto trace = [&](bool vertical, unsigned at) {
      const std::vector<unsigned> along = LinePoints(vertical ? pr.h : pr.w, step);
      Sample prev;
      for (std::size_t i = 0; i < along.size(); ++i) {
        const Sample s = vertical ? ShapeAt(field, pr, at, along[i], radius)
                                  : ShapeAt(field, pr, along[i], at, radius);
        if (i > 0 && prev.measured && s.measured) segments.push_back({prev, s});
        prev = s;
      }
    };
    for (unsigned x : GridPositions(pr.w, spacing)) trace(true, x);
    for (unsigned y : GridPositions(pr.h, spacing)) trace(false, y);

    for (const Segment& s : segments) {
      canvas.ThickLine(s.a.x, s.a.y, s.b.x, s.b.y, width, kRestColour, kRestAlpha);
    }
    const auto moved = [&](const Sample& s, double* x, double* y) {
      double dx = gain * s.dx, dy = gain * s.dy;
      const double len = std::hypot(dx, dy);
      if (len > cap) dx *= cap / len, dy *= cap / len;
      *x = s.x + dx;
      *y = s.y + dy;
      return pr.p99 > 0 ? std::hypot(s.dx, s.dy) / pr.p99 : 0.0;
    };
    for (const Segment& s : segments) {
      double ax, ay, bx, by;
      const double t = 0.5 * (moved(s.a, &ax, &ay) + moved(s.b, &bx, &by));
      canvas.ThickLine(ax, ay, bx, by, width, DeformedColour(t), 1.0);
    }
  }

  if (!field.figure) {
    WriteRgbPng(path, canvas.rgb.data(), pr.w, pr.h,
                {{"Title", field.title}, {"Scale", scale}, {"Software", "frfcam modes"}});
    return;
  }
  ImageFigure f;
  f.title = field.title;
  f.subtitle = scale;
  f.pixels = canvas.rgb;
  f.channels = 3;
  f.width = pr.w;
  f.height = pr.h;
  if (pr.anyMeasured && gain > 0) {
    for (int i = 0; i <= 8; ++i) {
      const Rgb c = DeformedColour(i / 8.0);
      f.barColours.push_back({static_cast<std::uint8_t>(std::lround(c[0])),
                              static_cast<std::uint8_t>(std::lround(c[1])),
                              static_cast<std::uint8_t>(std::lround(c[2]))});
    }
    f.barHigh = pr.p99;
    f.quantity = "grid colour: |displacement| [" + field.units + " per reference unit]";
  }
  WriteFigurePng(path, ImageFigureSvg(f),
                 {{"Title", field.title},
                  {"Scale", scale},
                  {"Description", field.title +
                                      "; the mean frame with the magnified deformed "
                                      "grid; " +
                                      scale},
                  {"Software", "frfcam modes"}});
}

void WriteMotionGif(const std::string& path, const DisplacementField& field) {
  const Prepared pr = Prepare(field, path);
  const std::vector<float> grey = StretchedMean(field, pr.n);
  const double target = std::max(2.0, 0.03 * pr.minSide);
  const double gain = pr.p99 > 0 ? target / pr.p99 : 0.0;

  std::vector<std::complex<float>> vx = Turned(field.x, pr.n, pr.turn);
  std::vector<std::complex<float>> vy = Turned(field.y, pr.n, pr.turn);
  const double window = field.windowPx > 0 ? field.windowPx : std::max(3.0, pr.minSide / 32.0);
  const int radius = std::max(1, static_cast<int>(std::lround(window)));
  FillFromNeighbours(vx, pr.w, pr.h, radius, kFillPasses);
  FillFromNeighbours(vy, pr.w, pr.h, radius, kFillPasses);

  // Bilinear, with the frame's edge repeated outside it.
  const auto sample = [&](double x, double y) {
    x = std::clamp(x, 0.0, pr.w - 1.0);
    y = std::clamp(y, 0.0, pr.h - 1.0);
    const unsigned x0 = static_cast<unsigned>(x), y0 = static_cast<unsigned>(y);
    const unsigned x1 = std::min(x0 + 1, pr.w - 1), y1 = std::min(y0 + 1, pr.h - 1);
    const double fx = x - x0, fy = y - y0;
    const auto at = [&](unsigned a, unsigned b) { return grey[std::size_t{b} * pr.w + a]; };
    return (1 - fy) * ((1 - fx) * at(x0, y0) + fx * at(x1, y0)) +
           fy * ((1 - fx) * at(x0, y1) + fx * at(x1, y1));
  };

  std::vector<std::vector<std::uint8_t>> frames(kGifFrames, std::vector<std::uint8_t>(pr.n));
  for (int j = 0; j < kGifFrames; ++j) {
    // The field is already turned by -theta.
    const std::complex<double> phase = std::polar(1.0, 2.0 * std::numbers::pi * j / kGifFrames);
    const double c = gain * phase.real(), s = gain * phase.imag();
    std::uint8_t* out = frames[j].data();
    for (unsigned y = 0; y < pr.h; ++y) {
      for (unsigned x = 0; x < pr.w; ++x) {
        const std::size_t p = std::size_t{y} * pr.w + x;
        const double dx = c * vx[p].real() - s * vx[p].imag();
        const double dy = c * vy[p].real() - s * vy[p].imag();
        out[p] = static_cast<std::uint8_t>(255.0 * sample(x - dx, y - dy) + 0.5);
      }
    }
  }
  Palette palette;
  for (int i = 0; i < 256; ++i) {
    const auto v = static_cast<std::uint8_t>(i);
    palette[i] = {v, v, v};
  }
  unsigned height = pr.h;
  if (field.figure) AddCaption(&frames, pr.w, &height, palette, field.title);
  WriteAnimatedGif(path, frames, pr.w, height, palette, 4);
}

}  // namespace frfcam::cli
