#include "chart_svg.h"

#include <fcntl.h>
#include <gif_lib.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

#include "command_error.h"

namespace frfcam::cli {

namespace {

std::string Escape(const std::string& s) {
  std::string out;
  for (char c : s) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

}  // namespace

double TickStep(double span, int count) {
  if (!(span > 0.0)) return 1.0;
  const double raw = span / count;
  const double p = std::pow(10.0, std::floor(std::log10(raw)));
  for (double m : {1.0, 2.0, 5.0, 10.0}) {
    if (m * p >= raw) return m * p;
  }
  return 10.0 * p;
}

namespace {

// One style for the classes wherever a chart is drawn (this SVG, the
// viewer's page and the Python plot), so a reader learns it once.
constexpr const char* kStableColour = "#1f5fbf";
constexpr const char* kFrequencyColour = "#2a9d3a";
constexpr const char* kDampingColour = "#e07b00";
constexpr const char* kNewColour = "#999999";
constexpr const char* kSelectedColour = "#dd2222";
constexpr const char* kMagnitudeColour = "#b0b0b0";

// Rough advance of a sans-serif character at font size 1, for laying out
// text without measuring it: generous, so estimates err towards space.
constexpr double kCharWidth = 0.6;

}  // namespace

std::string StabilisationChartSvg(const ChartInput& c, double kW, double kH) {
  constexpr double kLeft = 70, kRight = 70, kBottom = 50;
  constexpr double kTitleBand = 30, kLegendBand = 22, kLabelRow = 14, kMaxLabelRows = 4;
  const double plotW = kW - kLeft - kRight;

  double fLo = c.lineHz.empty() ? 0.0 : *std::min_element(c.lineHz.begin(), c.lineHz.end());
  double fHi = c.lineHz.empty() ? 1.0 : *std::max_element(c.lineHz.begin(), c.lineHz.end());
  int oLo = 0, oHi = 1;
  if (!c.orders.empty()) {
    oLo = c.orders.front().order;
    oHi = c.orders.back().order;
    for (const auto& o : c.orders) {
      oLo = std::min(oLo, o.order);
      oHi = std::max(oHi, o.order);
      for (const auto* v : {&o.s, &o.f, &o.d, &o.o}) {
        for (double f : *v) {
          if (c.lineHz.empty()) {
            fLo = std::min(fLo, f);
            fHi = std::max(fHi, f);
          }
        }
      }
    }
  }
  if (!(fHi > fLo)) fHi = fLo + 1.0;
  if (oHi <= oLo) oHi = oLo + 1;
  const auto X = [&](double f) { return kLeft + (f - fLo) / (fHi - fLo) * plotW; };

  // Bands from the top: the title, the legend, then the selected modes'
  // labels, staggered over as many rows as neighbours need.
  const double legendTop = c.title.empty() ? 6.0 : kTitleBand;
  const double labelsTop = legendTop + kLegendBand;
  struct Label {
    double x, width;
    int row;
    std::string text;
  };
  std::vector<Label> labels;
  {
    std::vector<double> sorted;
    for (double f : c.selectedHz) {
      if (f >= fLo && f <= fHi) sorted.push_back(f);
    }
    std::sort(sorted.begin(), sorted.end());
    std::vector<double> rowEnd;
    for (double f : sorted) {
      char text[32];
      std::snprintf(text, sizeof text, "%.1f Hz", f);
      const double width = std::strlen(text) * 11 * kCharWidth;
      const double x = std::clamp(X(f), kLeft + width / 2, kW - kRight - width / 2);
      int row = -1;
      for (std::size_t r = 0; r < rowEnd.size() && row < 0; ++r) {
        if (rowEnd[r] + 4 <= x - width / 2) row = static_cast<int>(r);
      }
      if (row < 0 && rowEnd.size() < kMaxLabelRows) {
        row = static_cast<int>(rowEnd.size());
        rowEnd.push_back(0.0);
      }
      if (row < 0) {  // crowded: the row that frees up first
        row = static_cast<int>(std::min_element(rowEnd.begin(), rowEnd.end()) - rowEnd.begin());
      }
      rowEnd[row] = x + width / 2;
      labels.push_back({x, width, row, text});
    }
  }
  int rows = 0;
  for (const auto& l : labels) rows = std::max(rows, l.row + 1);
  const double kTop = labelsTop + rows * kLabelRow + 6;
  const double plotH = std::max(20.0, kH - kTop - kBottom);
  const double oMin = oLo - 0.5, oMax = oHi + 0.5;
  const auto Y = [&](double order) { return kTop + (oMax - order) / (oMax - oMin) * plotH; };

  std::ostringstream svg;
  svg.setf(std::ios::fixed);
  svg.precision(2);
  svg << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << kW << "\" height=\"" << kH
      << "\" viewBox=\"0 0 " << kW << " " << kH
      << "\" font-family=\"sans-serif\" font-size=\"12\">\n"
      << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
  if (!c.title.empty()) {
    svg << "<text id=\"title\" x=\"" << kW / 2
        << "\" y=\"21\" text-anchor=\"middle\" font-size=\"15\">" << Escape(c.title) << "</text>\n";
  }
  svg << "<defs><clipPath id=\"plot\"><rect x=\"" << kLeft << "\" y=\"" << kTop << "\" width=\""
      << plotW << "\" height=\"" << plotH << "\"/></clipPath></defs>\n";

  // The magnitude, on a log scale over the plot's height (right axis).
  std::vector<double> mag;
  for (double m : c.sumMagnitude) {
    if (m > 0.0 && std::isfinite(m)) mag.push_back(m);
  }
  const bool magnitude = !mag.empty() && c.sumMagnitude.size() == c.lineHz.size();
  if (magnitude) {
    const double lo = std::log10(*std::min_element(mag.begin(), mag.end()));
    double hi = std::log10(*std::max_element(mag.begin(), mag.end()));
    if (!(hi > lo)) hi = lo + 1.0;
    const auto YM = [&](double m) { return kTop + (hi - std::log10(m)) / (hi - lo) * plotH; };
    svg << "<polyline clip-path=\"url(#plot)\" fill=\"none\" stroke=\"" << kMagnitudeColour
        << "\" stroke-width=\"1.2\" points=\"";
    for (std::size_t i = 0; i < c.lineHz.size(); ++i) {
      const double m = c.sumMagnitude[i];
      if (m > 0.0 && std::isfinite(m)) svg << X(c.lineHz[i]) << "," << YM(m) << " ";
    }
    svg << "\"/>\n";
    for (int e = static_cast<int>(std::ceil(lo)); e <= static_cast<int>(std::floor(hi)); ++e) {
      svg << "<text x=\"" << kW - kRight + 6 << "\" y=\"" << YM(std::pow(10.0, e)) + 4
          << "\" fill=\"#808080\">1e" << e << "</text>\n";
    }
    svg << "<text transform=\"translate(" << kW - 14 << "," << kTop + plotH / 2
        << ") rotate(90)\" text-anchor=\"middle\" fill=\"#808080\">sum of |FRF|</text>\n";
  }

  // Axes and ticks.
  svg << "<rect id=\"frame\" x=\"" << kLeft << "\" y=\"" << kTop << "\" width=\"" << plotW
      << "\" height=\"" << plotH << "\" fill=\"none\" stroke=\"black\"/>\n";
  const double fStep = TickStep(fHi - fLo, 8);
  for (double f = std::ceil(fLo / fStep) * fStep; f <= fHi + 1e-9 * fStep; f += fStep) {
    svg << "<line x1=\"" << X(f) << "\" y1=\"" << kTop + plotH << "\" x2=\"" << X(f) << "\" y2=\""
        << kTop + plotH + 5 << "\" stroke=\"black\"/><text x=\"" << X(f) << "\" y=\""
        << kTop + plotH + 19 << "\" text-anchor=\"middle\">" << std::lround(f) << "</text>\n";
  }
  const double oStep = std::max(1.0, TickStep(oHi - oLo, 8));
  for (double o = std::ceil(oLo / oStep) * oStep; o <= oHi; o += oStep) {
    svg << "<line x1=\"" << kLeft - 5 << "\" y1=\"" << Y(o) << "\" x2=\"" << kLeft << "\" y2=\""
        << Y(o) << "\" stroke=\"black\"/><text x=\"" << kLeft - 8 << "\" y=\"" << Y(o) + 4
        << "\" text-anchor=\"end\">" << std::lround(o) << "</text>\n";
  }
  svg << "<text x=\"" << kLeft + plotW / 2 << "\" y=\"" << kTop + plotH + 38
      << "\" text-anchor=\"middle\">frequency [Hz]</text>\n"
      << "<text transform=\"translate(18," << kTop + plotH / 2
      << ") rotate(-90)\" text-anchor=\"middle\">model order</text>\n";

  // Selected modes behind the symbols, their labels in the band above.
  for (double f : c.selectedHz) {
    if (!(f >= fLo && f <= fHi)) continue;
    svg << "<line x1=\"" << X(f) << "\" y1=\"" << kTop << "\" x2=\"" << X(f) << "\" y2=\""
        << kTop + plotH << "\" stroke=\"" << kSelectedColour
        << "\" stroke-width=\"1.5\" stroke-dasharray=\"6,4\"/>\n";
  }
  svg << "<g id=\"selected-labels\" font-size=\"11\" fill=\"" << kSelectedColour
      << "\" text-anchor=\"middle\">\n";
  for (const auto& l : labels) {
    svg << "<text x=\"" << l.x << "\" y=\"" << labelsTop + (l.row + 1) * kLabelRow - 3
        << "\" data-width=\"" << l.width << "\">" << l.text << "</text>\n";
  }
  svg << "</g>\n";

  // The symbols of the four classes.
  const auto symbol = [&](char cls, double x, double y) {
    switch (cls) {
      case 's':
        svg << "<circle cx=\"" << x << "\" cy=\"" << y << "\" r=\"3.2\" fill=\"" << kStableColour
            << "\"/>";
        break;
      case 'f':
        svg << "<circle cx=\"" << x << "\" cy=\"" << y << "\" r=\"3.2\" fill=\"none\" stroke=\""
            << kFrequencyColour << "\" stroke-width=\"1.2\"/>";
        break;
      case 'd':
        svg << "<path d=\"M" << x - 3.5 << " " << y << "h7M" << x << " " << y - 3.5
            << "v7\" stroke=\"" << kDampingColour << "\" stroke-width=\"1.3\"/>";
        break;
      default:
        svg << "<circle cx=\"" << x << "\" cy=\"" << y << "\" r=\"1.3\" fill=\"" << kNewColour
            << "\"/>";
    }
  };
  svg << "<g clip-path=\"url(#plot)\">\n";
  for (const auto& o : c.orders) {
    const double y = Y(o.order);
    for (double f : o.o) symbol('o', X(f), y);
    for (double f : o.d) symbol('d', X(f), y);
    for (double f : o.f) symbol('f', X(f), y);
    for (double f : o.s) symbol('s', X(f), y);
    svg << "\n";
  }
  svg << "</g>\n";

  // Legend: one row in its own band between the title and the plot.
  const double ly = legendTop + kLegendBand / 2;
  svg << "<g id=\"legend\" data-top=\"" << legendTop << "\" data-bottom=\""
      << legendTop + kLegendBand << "\">\n";
  double x = kLeft + 6;
  const char* names[] = {"stable", "frequency", "damping", "new"};
  const char classes[] = {'s', 'f', 'd', 'o'};
  for (int i = 0; i < 4; ++i) {
    symbol(classes[i], x, ly);
    svg << "<text x=\"" << x + 8 << "\" y=\"" << ly + 4 << "\">" << names[i] << "</text>\n";
    x += 8 + std::strlen(names[i]) * 12 * kCharWidth + 18;
  }
  svg << "<line x1=\"" << x - 4 << "\" y1=\"" << ly << "\" x2=\"" << x + 10 << "\" y2=\"" << ly
      << "\" stroke=\"" << kSelectedColour << "\" stroke-width=\"1.5\" stroke-dasharray=\"4,3\"/>"
      << "<text x=\"" << x + 14 << "\" y=\"" << ly + 4 << "\">selected</text>\n";
  x += 14 + 8 * 12 * kCharWidth + 18;
  if (magnitude) {
    svg << "<line x1=\"" << x - 4 << "\" y1=\"" << ly << "\" x2=\"" << x + 10 << "\" y2=\"" << ly
        << "\" stroke=\"" << kMagnitudeColour << "\" stroke-width=\"1.5\"/>"
        << "<text x=\"" << x + 14 << "\" y=\"" << ly + 4 << "\">sum of |FRF|</text>\n";
  }
  svg << "</g>\n</svg>\n";
  return svg.str();
}

void WriteTextFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  out.flush();
  if (!out) throw CommandError("cannot write " + path);
}

Palette DivergingPalette() {
  // Blue (0.23, 0.30, 0.75) through white-ish to red (0.71, 0.02, 0.15),
  // each half a straight line in RGB: enough to tell sign and size apart.
  Palette p;
  const double blue[3] = {59, 76, 192}, mid[3] = {242, 242, 242}, red[3] = {180, 4, 38};
  for (int i = 0; i < 256; ++i) {
    const double t = (i - 127.5) / 127.5;  // -1 .. 1
    const double* end = t < 0 ? blue : red;
    const double a = std::abs(t);
    for (int k = 0; k < 3; ++k) {
      p[i][k] = static_cast<std::uint8_t>(std::lround(mid[k] + a * (end[k] - mid[k])));
    }
  }
  return p;
}

void WriteAnimatedGif(const std::string& path, const std::vector<std::vector<std::uint8_t>>& frames,
                      unsigned width, unsigned height, const Palette& palette,
                      int delayCentiseconds) {
  int error = 0;
  // Opened here rather than by giflib, which creates files readable by
  // their owner only.
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
  if (fd < 0) throw CommandError("cannot create " + path);
  GifFileType* gif = EGifOpenFileHandle(fd, &error);  // owns fd from here
  if (gif == nullptr) ::close(fd);
  if (gif == nullptr) throw CommandError("cannot create " + path + ": " + GifErrorString(error));
  const auto fail = [&](const char* what) {
    int closeError = 0;
    EGifCloseFile(gif, &closeError);
    std::remove(path.c_str());
    throw CommandError("cannot write " + path + " (" + what + ")");
  };
  GifColorType colours[256];
  for (int i = 0; i < 256; ++i) colours[i] = {palette[i][0], palette[i][1], palette[i][2]};
  ColorMapObject* map = GifMakeMapObject(256, colours);
  if (map == nullptr) fail("colour map");
  EGifSetGifVersion(gif, true);
  const int screen =
      EGifPutScreenDesc(gif, static_cast<int>(width), static_cast<int>(height), 8, 0, map);
  GifFreeMapObject(map);
  if (screen == GIF_ERROR) fail("screen");
  // Loop forever: the application extension every viewer knows.
  const unsigned char loop[] = {1, 0, 0};
  if (EGifPutExtensionLeader(gif, APPLICATION_EXT_FUNC_CODE) == GIF_ERROR ||
      EGifPutExtensionBlock(gif, 11, "NETSCAPE2.0") == GIF_ERROR ||
      EGifPutExtensionBlock(gif, 3, loop) == GIF_ERROR ||
      EGifPutExtensionTrailer(gif) == GIF_ERROR) {
    fail("loop extension");
  }
  for (const auto& frame : frames) {
    if (frame.size() != static_cast<std::size_t>(width) * height) fail("frame size");
    GraphicsControlBlock gcb = {};
    gcb.DisposalMode = DISPOSE_DO_NOT;
    gcb.DelayTime = delayCentiseconds;
    gcb.TransparentColor = NO_TRANSPARENT_COLOR;
    GifByteType ext[4];
    EGifGCBToExtension(&gcb, ext);
    if (EGifPutExtension(gif, GRAPHICS_EXT_FUNC_CODE, 4, ext) == GIF_ERROR ||
        EGifPutImageDesc(gif, 0, 0, static_cast<int>(width), static_cast<int>(height), false,
                         nullptr) == GIF_ERROR) {
      fail("frame");
    }
    for (unsigned y = 0; y < height; ++y) {
      if (EGifPutLine(gif, const_cast<GifPixelType*>(frame.data() + std::size_t{y} * width),
                      static_cast<int>(width)) == GIF_ERROR) {
        fail("pixels");
      }
    }
  }
  if (EGifCloseFile(gif, &error) == GIF_ERROR) {
    std::remove(path.c_str());
    throw CommandError("cannot write " + path + ": " + GifErrorString(error));
  }
}

}  // namespace frfcam::cli
