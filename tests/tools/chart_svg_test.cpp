#include "chart_svg.h"

#include <gtest/gtest.h>

#include <cmath>
#include <regex>
#include <string>
#include <vector>

#include "png_reader.h"
#include "support/contains.h"
#include "support/test_support.h"
#include "svg_raster.h"

namespace frfcam::cli {
namespace {

// Crowded selected modes (four within 10 Hz) under a title.
ChartInput Crowded(const std::string& title) {
  ChartInput c;
  c.title = title;
  for (int i = 0; i <= 500; ++i) c.lineHz.push_back(i);
  c.sumMagnitude.assign(c.lineHz.size(), 1.0);
  c.sumMagnitude[100] = 50.0;
  c.orders = {{10, {100.0}, {103.0}, {200.0}, {300.0}}, {12, {100.2}, {}, {}, {}}};
  c.selectedHz = {100.0, 103.0, 106.0, 109.0, 400.0};
  return c;
}

double Attribute(const std::string& element, const std::string& name) {
  std::smatch m;
  const std::regex re(" " + name + "=\"([-0-9.]+)\"");
  if (!std::regex_search(element, m, re)) return std::nan("");
  return std::stod(m[1]);
}

TEST(ChartSvg, TitleLegendLabelsAndPlotKeepApart) {
  const std::string svg = StabilisationChartSvg(Crowded("A title"));
  std::smatch m;
  ASSERT_TRUE(std::regex_search(svg, m, std::regex("<text id=\"title\"[^>]*>")));
  const double titleBottom = Attribute(m[0], "y") + 5;  // descenders of 15 px text
  ASSERT_TRUE(std::regex_search(svg, m, std::regex("<g id=\"legend\"[^>]*>")));
  const double legendTop = Attribute(m[0], "data-top"),
               legendBottom = Attribute(m[0], "data-bottom");
  ASSERT_TRUE(std::regex_search(svg, m, std::regex("<rect id=\"frame\"[^>]*>")));
  const double plotTop = Attribute(m[0], "y");
  EXPECT_LE(titleBottom, legendTop);

  const std::string labels = svg.substr(svg.find("<g id=\"selected-labels\""));
  struct Label {
    double x, y, width;
  };
  std::vector<Label> found;
  const std::regex text("<text [^>]*data-width[^>]*>");
  for (auto it = std::sregex_iterator(labels.begin(), labels.begin() + labels.find("</g>"), text);
       it != std::sregex_iterator(); ++it) {
    const std::string e = (*it)[0];
    found.push_back({Attribute(e, "x"), Attribute(e, "y"), Attribute(e, "data-width")});
  }
  ASSERT_EQ(found.size(), 5u);
  double rows = 0;
  for (const Label& a : found) {
    EXPECT_GE(a.y - 9, legendBottom);  // 11 px text above its baseline
    EXPECT_LE(a.y + 3, plotTop);
    for (const Label& b : found) {
      if (&a != &b && a.y == b.y) {
        EXPECT_GE(std::abs(a.x - b.x), (a.width + b.width) / 2);
      }
    }
    rows = std::max(rows, a.y);
  }
  EXPECT_GT(rows, found.front().y) << "the crowded labels stay on one row";
}

TEST(ChartPng, DrawsTheTextAtTheSizeAsked) {
  if (!SvgRasterAvailable()) GTEST_SKIP() << "built without librsvg";
  const auto titled = RasteriseSvg(StabilisationChartSvg(Crowded("Title"), 640, 400), 640, 400);
  const auto plain = RasteriseSvg(StabilisationChartSvg(Crowded(""), 640, 400), 640, 400);
  ASSERT_EQ(titled.size(), 640u * 400 * 3);
  const auto dark = [](const std::vector<std::uint8_t>& rgb, unsigned y0, unsigned y1) {
    int n = 0;
    for (std::size_t p = y0 * 640; p < y1 * 640; ++p) n += rgb[3 * p] + rgb[3 * p + 1] < 120;
    return n;
  };
  EXPECT_GT(dark(titled, 0, 28), 20) << "the title";
  EXPECT_EQ(dark(plain, 0, 6), 0);
  EXPECT_GT(dark(titled, 30, 52), 50) << "the legend's words";

  // The command writes that drawing with its text chunks.
  test::ScratchDir dir;
  const std::string record = dir.file("r.pb"), png = dir.file("c.png");
  ASSERT_EQ(test::Cli("synth-frf " + dir.file("f.csv") + " --lines 300").status, 0);
  ASSERT_EQ(test::Cli("stability " + dir.file("f.csv") + " --orders 2:20 -o " + record).status, 0);
  ASSERT_EQ(test::Cli("chart " + record + " -o " + png + " --size 640x400").status, 0);
  Png read;
  ASSERT_TRUE(ReadPng(png, &read));
  EXPECT_EQ(read.width, 640u);
  EXPECT_EQ(read.height, 400u);
  EXPECT_TRUE(test::Contains(read.text["Title"], "r.pb"));
  EXPECT_TRUE(test::Contains(read.text["Description"], "model order"));
  EXPECT_GT(dark(read.rgb, 0, 28), 20);
}

}  // namespace
}  // namespace frfcam::cli
