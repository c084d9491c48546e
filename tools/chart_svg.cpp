#include "chart_svg.h"

#include <fcntl.h>
#include <gif_lib.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>

#include "commands.h"

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

std::string StabilisationChartSvg(const ChartInput& c) {
  constexpr double kW = 900, kH = 560, kLeft = 70, kRight = 70, kTop = 40, kBottom = 60;
  const double plotW = kW - kLeft - kRight, plotH = kH - kTop - kBottom;

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
  const double oMin = oLo - 0.5, oMax = oHi + 0.5;
  const auto X = [&](double f) { return kLeft + (f - fLo) / (fHi - fLo) * plotW; };
  const auto Y = [&](double order) { return kTop + (oMax - order) / (oMax - oMin) * plotH; };

  std::ostringstream svg;
  svg.setf(std::ios::fixed);
  svg.precision(2);
  svg << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << kW << "\" height=\"" << kH
      << "\" viewBox=\"0 0 " << kW << " " << kH
      << "\" font-family=\"sans-serif\" font-size=\"12\">\n"
      << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
  if (!c.title.empty()) {
    svg << "<text x=\"" << kW / 2 << "\" y=\"22\" text-anchor=\"middle\" font-size=\"15\">"
        << Escape(c.title) << "</text>\n";
  }
  svg << "<defs><clipPath id=\"plot\"><rect x=\"" << kLeft << "\" y=\"" << kTop << "\" width=\""
      << plotW << "\" height=\"" << plotH << "\"/></clipPath></defs>\n";

  // The magnitude, on a log scale over the plot's height (right axis).
  std::vector<double> mag;
  for (double m : c.sumMagnitude) {
    if (m > 0.0 && std::isfinite(m)) mag.push_back(m);
  }
  if (!mag.empty() && c.sumMagnitude.size() == c.lineHz.size()) {
    const double lo = std::log10(*std::min_element(mag.begin(), mag.end()));
    double hi = std::log10(*std::max_element(mag.begin(), mag.end()));
    if (!(hi > lo)) hi = lo + 1.0;
    const auto YM = [&](double m) { return kTop + (hi - std::log10(m)) / (hi - lo) * plotH; };
    svg << "<polyline clip-path=\"url(#plot)\" fill=\"none\" stroke=\"#b0b0b0\" "
           "stroke-width=\"1.2\" points=\"";
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
  svg << "<rect x=\"" << kLeft << "\" y=\"" << kTop << "\" width=\"" << plotW << "\" height=\""
      << plotH << "\" fill=\"none\" stroke=\"black\"/>\n";
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
  svg << "<text x=\"" << kLeft + plotW / 2 << "\" y=\"" << kH - 18
      << "\" text-anchor=\"middle\">frequency [Hz]</text>\n"
      << "<text transform=\"translate(18," << kTop + plotH / 2
      << ") rotate(-90)\" text-anchor=\"middle\">model order</text>\n";

  // Selected modes behind the symbols.
  for (double f : c.selectedHz) {
    svg << "<line x1=\"" << X(f) << "\" y1=\"" << kTop << "\" x2=\"" << X(f) << "\" y2=\""
        << kTop + plotH << "\" stroke=\"#d62728\" stroke-width=\"1.5\" stroke-dasharray=\"6,4\"/>"
        << "<text x=\"" << X(f) + 3 << "\" y=\"" << kTop + 12 << "\" fill=\"#d62728\">";
    svg.precision(1);
    svg << f << " Hz</text>\n";
    svg.precision(2);
  }

  // The symbols of the four classes.
  const auto symbol = [&](char cls, double x, double y) {
    switch (cls) {
      case 's':
        svg << "<circle cx=\"" << x << "\" cy=\"" << y << "\" r=\"3.2\" fill=\"#1f77b4\"/>";
        break;
      case 'f':
        svg << "<circle cx=\"" << x << "\" cy=\"" << y
            << "\" r=\"3.2\" fill=\"none\" stroke=\"#2ca02c\" stroke-width=\"1.2\"/>";
        break;
      case 'd':
        svg << "<path d=\"M" << x - 3.5 << " " << y << "h7M" << x << " " << y - 3.5
            << "v7\" stroke=\"#ff7f0e\" stroke-width=\"1.3\"/>";
        break;
      default:
        svg << "<circle cx=\"" << x << "\" cy=\"" << y << "\" r=\"1.3\" fill=\"#7f7f7f\"/>";
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

  // Legend, above the plot on the left.
  const char* names[] = {"stable (s)", "frequency (f)", "damping (d)", "new (o)"};
  const char classes[] = {'s', 'f', 'd', 'o'};
  for (int i = 0; i < 4; ++i) {
    const double x = kLeft + 10 + i * 120;
    symbol(classes[i], x, kTop - 12);
    svg << "<text x=\"" << x + 8 << "\" y=\"" << kTop - 8 << "\">" << names[i] << "</text>\n";
  }
  svg << "</svg>\n";
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
