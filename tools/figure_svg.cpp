#include "figure_svg.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

#include "command_error.h"
#include "svg_raster.h"

namespace frfcam::cli {

namespace {

std::string Escape(const std::string& s) {
  std::string out;
  for (char c : s) {
    if (c == '&') {
      out += "&amp;";
    } else if (c == '<') {
      out += "&lt;";
    } else if (c == '>') {
      out += "&gt;";
    } else {
      out += c;
    }
  }
  return out;
}

std::string Hex(const std::array<std::uint8_t, 3>& c) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "#%02x%02x%02x", c[0], c[1], c[2]);
  return buf;
}

// Width estimate of text at a font size, erring wide.
double TextWidth(const std::string& text, double size) { return 0.6 * size * text.size(); }

// The picture as PNG bytes, each pixel repeated `factor` times each way.
std::string EmbeddedPng(const ImageFigure& f, unsigned factor) {
  const unsigned ch = f.channels, w = f.width * factor, h = f.height * factor;
  if (f.pixels.size() != std::size_t{f.width} * f.height * ch || (ch != 1 && ch != 3)) {
    throw CommandError("a figure's picture does not match its size");
  }
  std::vector<std::uint8_t> big(std::size_t{w} * h * ch);
  for (unsigned y = 0; y < h; ++y) {
    const std::uint8_t* row = &f.pixels[std::size_t{y / factor} * f.width * ch];
    std::uint8_t* out = &big[std::size_t{y} * w * ch];
    for (unsigned x = 0; x < w; ++x) {
      std::copy_n(row + std::size_t{x / factor} * ch, ch, out + std::size_t{x} * ch);
    }
  }
  return ch == 3 ? RgbPng(big.data(), w, h) : GrayPng(big.data(), w, h);
}

}  // namespace

std::string Base64(const std::string& bytes) {
  static const char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t n = std::min<std::size_t>(3, bytes.size() - i);
    std::uint32_t v = 0;
    for (std::size_t k = 0; k < 3; ++k) {
      v = (v << 8) | (k < n ? static_cast<unsigned char>(bytes[i + k]) : 0u);
    }
    for (std::size_t k = 0; k < 4; ++k) {
      out += k <= n ? kDigits[(v >> (18 - 6 * k)) & 63] : '=';
    }
  }
  return out;
}

FigureSvg ImageFigureSvg(const ImageFigure& f) {
  constexpr double kMargin = 12, kTitleSize = 15, kSubtitleSize = 12, kBarWidth = 16;
  const unsigned side = std::max(1u, std::max(f.width, f.height));
  double scale = 1.0;
  if (side < 480) scale = std::floor(480.0 / side);
  if (side > 1200) scale = 1200.0 / side;
  const double imageW = f.width * scale, imageH = f.height * scale;

  const double top = kMargin + kTitleSize + 4 + (f.subtitle.empty() ? 0 : kSubtitleSize + 6) + 8;
  const bool bar = !f.barColours.empty();
  const double barH = std::max(imageH, 160.0);
  const double barX = kMargin + imageW + 18;
  // Tick values: a round step giving 3-5 of them over the bar's range.
  std::vector<double> ticks;
  std::vector<std::string> tickText;
  double tickWidth = 0;
  if (bar) {
    const double span = f.barHigh - f.barLow;
    double step = TickStep(span, 4);
    for (int tries = 0; tries < 4; ++tries) {
      ticks.clear();
      for (double v = std::ceil(f.barLow / step - 1e-9) * step; v <= f.barHigh + 1e-9 * step;
           v += step) {
        ticks.push_back(std::abs(v) < 1e-12 * step ? 0.0 : v);
      }
      if (ticks.size() > 5) {
        step = TickStep(span, 2);
      } else if (ticks.size() < 3) {
        step /= 2;
      } else {
        break;
      }
    }
    for (double v : ticks) {
      char buf[32];
      std::snprintf(buf, sizeof buf, "%.4g", v);
      tickText.push_back(buf);
      tickWidth = std::max(tickWidth, TextWidth(buf, 12));
    }
  }
  const double quantityX = barX + kBarWidth + 8 + tickWidth + 10 + 12;
  double width = bar ? quantityX + kMargin : kMargin + imageW + kMargin;
  width = std::max({width, TextWidth(f.title, kTitleSize) + 2 * kMargin,
                    TextWidth(f.subtitle, kSubtitleSize) + 2 * kMargin});
  const double height = top + (bar ? barH : imageH) + kMargin;

  FigureSvg out;
  out.width = static_cast<unsigned>(std::ceil(width));
  out.height = static_cast<unsigned>(std::ceil(height));
  std::ostringstream svg;
  svg.setf(std::ios::fixed);
  svg.precision(2);
  svg << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << out.width << "\" height=\""
      << out.height << "\" viewBox=\"0 0 " << out.width << " " << out.height
      << "\" font-family=\"sans-serif\" font-size=\"12\">\n"
      << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
      << "<text x=\"" << kMargin << "\" y=\"" << kMargin + kTitleSize << "\" font-size=\""
      << kTitleSize << "\">" << Escape(f.title) << "</text>\n";
  if (!f.subtitle.empty()) {
    svg << "<text x=\"" << kMargin << "\" y=\"" << kMargin + kTitleSize + 6 + kSubtitleSize
        << "\" font-size=\"" << kSubtitleSize << "\" fill=\"#444444\">" << Escape(f.subtitle)
        << "</text>\n";
  }
  svg << "<image x=\"" << kMargin << "\" y=\"" << top << "\" width=\"" << imageW << "\" height=\""
      << imageH
      << "\" preserveAspectRatio=\"none\" image-rendering=\"pixelated\" "
         "style=\"image-rendering:pixelated\" href=\"data:image/png;base64,"
      << Base64(EmbeddedPng(f, scale >= 2 ? static_cast<unsigned>(scale) : 1u)) << "\"/>\n";
  if (bar) {
    // Low values at the bottom, as on any axis.
    svg << "<defs><linearGradient id=\"bar\" x1=\"0\" y1=\"1\" x2=\"0\" y2=\"0\">\n";
    const std::size_t n = f.barColours.size();
    for (std::size_t i = 0; i < n; ++i) {
      svg << "<stop offset=\"" << (n > 1 ? static_cast<double>(i) / (n - 1) : 0.0)
          << "\" stop-color=\"" << Hex(f.barColours[i]) << "\"/>\n";
    }
    svg << "</linearGradient></defs>\n"
        << "<rect x=\"" << barX << "\" y=\"" << top << "\" width=\"" << kBarWidth << "\" height=\""
        << barH << "\" fill=\"url(#bar)\" stroke=\"black\"/>\n";
    const double span = f.barHigh - f.barLow;
    for (std::size_t i = 0; i < ticks.size(); ++i) {
      const double y = top + barH - (span > 0 ? (ticks[i] - f.barLow) / span : 0.0) * barH;
      svg << "<line x1=\"" << barX + kBarWidth << "\" y1=\"" << y << "\" x2=\""
          << barX + kBarWidth + 5 << "\" y2=\"" << y << "\" stroke=\"black\"/><text x=\""
          << barX + kBarWidth + 8 << "\" y=\"" << y + 4 << "\">" << tickText[i] << "</text>\n";
    }
    svg << "<text transform=\"translate(" << quantityX << "," << top + barH / 2
        << ") rotate(-90)\" text-anchor=\"middle\">" << Escape(f.quantity) << "</text>\n";
  }
  svg << "</svg>\n";
  out.svg = svg.str();
  return out;
}

void WriteFigurePng(const std::string& path, const FigureSvg& figure, const PngText& text) {
  const std::vector<std::uint8_t> rgb = RasteriseSvg(figure.svg, figure.width, figure.height);
  WriteRgbPng(path, rgb.data(), figure.width, figure.height, text);
}

void AddCaption(std::vector<std::vector<std::uint8_t>>* frames, unsigned width, unsigned* height,
                const Palette& palette, const std::string& text) {
  // The font shrinks so the line fits narrow pictures, down to a size that
  // still reads.
  const double size = std::clamp(width / (0.6 * std::max<std::size_t>(1, text.size())), 7.0, 13.0);
  const unsigned rows = static_cast<unsigned>(std::ceil(size * 1.5));
  std::ostringstream svg;
  svg << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << width << "\" height=\"" << rows
      << "\" font-family=\"sans-serif\"><rect width=\"100%\" height=\"100%\" fill=\"white\"/>"
      << "<text x=\"" << width / 2.0 << "\" y=\"" << rows - 0.35 * size << "\" font-size=\"" << size
      << "\" text-anchor=\"middle\">" << Escape(text) << "</text></svg>";
  const std::vector<std::uint8_t> rgb = RasteriseSvg(svg.str(), width, rows);
  std::vector<std::uint8_t> strip(rgb.size() / 3);
  for (std::size_t p = 0; p < strip.size(); ++p) {
    int best = 0;
    long bestDistance = -1;
    for (int i = 0; i < 256; ++i) {
      long d = 0;
      for (int k = 0; k < 3; ++k) {
        const long e = static_cast<long>(rgb[3 * p + k]) - palette[i][k];
        d += e * e;
      }
      if (bestDistance < 0 || d < bestDistance) bestDistance = d, best = i;
    }
    strip[p] = static_cast<std::uint8_t>(best);
  }
  for (auto& frame : *frames) frame.insert(frame.end(), strip.begin(), strip.end());
  *height += rows;
}

}  // namespace frfcam::cli
