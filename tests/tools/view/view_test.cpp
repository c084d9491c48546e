// The viewer's HTTP API as a script or the page uses it: the token rule,
// hostile parameters, maps equal to `frfcam map`, spectra equal to the cube,
// and many clients at once.
#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <complex>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "cube_state.h"
#include "frfmap/capture_header.h"
#include "frfmap/naming.h"
#include "support/test_support.h"
#include "view/view_server.h"

namespace frfcam::cli {
namespace {

using test::Cli;

struct Served {
  test::ScratchDir dir;
  std::string header = dir.file("p.hdr");
  std::unique_ptr<ViewServer> server;
  int port = 0;
  std::string token;

  // With `modes`, also the output of `frfcam modes` and a stability record
  // of the synthetic FRF table.
  explicit Served(bool withReference = false, bool modes = false) {
    EXPECT_EQ(Cli("synth " + header + " --width 40 --height 30 --frames 128 --fps 1000").status, 0);
    EXPECT_EQ(Cli("render " + header).status, 0);
    ViewOptions o;
    o.header = header;
    if (modes) {
      o.modesDir = dir.file("modes");
      o.record = dir.file("rec.pb");
      EXPECT_EQ(Cli("modes " + header + " --reference " + dir.file("p_reference.txt") + " -o " +
                    o.modesDir)
                    .status,
                0);
      EXPECT_EQ(Cli("synth-frf " + dir.file("f.csv")).status, 0);
      EXPECT_EQ(Cli("stability " + dir.file("f.csv") + " -o " + o.record).status, 0);
    }
    if (withReference) {
      std::string text;
      for (int t = 0; t < 128; ++t) text += std::to_string(1.0 + 0.5 * ((t * 7) % 5)) + "\n";
      std::ofstream(dir.file("ref.txt")) << text;
      o.reference = dir.file("ref.txt");
    }
    server = std::make_unique<ViewServer>(o);
    const std::string url = server->Start();
    port = std::atoi(url.substr(url.rfind(':') + 1).c_str());
    token = server->token();
  }
  httplib::Result Get(const std::string& path, bool withToken = true) {
    httplib::Client c("127.0.0.1", port);
    if (!withToken) return c.Get(path);
    return c.Get(path + (path.find('?') == std::string::npos ? "?" : "&") + "token=" + token);
  }
};

TEST(View, EveryRequestNeedsTheToken) {
  Served s;
  EXPECT_EQ(s.Get("/api/info", false)->status, 401);
  std::string wrong = s.token;
  wrong[0] = wrong[0] == 'a' ? 'b' : 'a';
  EXPECT_EQ(s.Get("/api/info?token=" + wrong, false)->status, 401);
  EXPECT_EQ(s.Get("/api/info?token=" + s.token.substr(1), false)->status, 401);
  httplib::Client c("127.0.0.1", s.port);
  EXPECT_EQ(c.Get("/api/info", {{"Authorization", "Bearer " + s.token}})->status, 200);
  EXPECT_EQ(c.Get("/api/info", {{"Authorization", "Bearer " + wrong}})->status, 401);
  EXPECT_GE(s.token.size(), 32u);  // 128 bits in hex
  const auto info = s.Get("/api/info");
  ASSERT_EQ(info->status, 200);
  EXPECT_EQ(info->body,
            "{\"width\":40,\"height\":30,\"frames\":128,\"fps\":1000,\"bins\":65,"
            "\"reference\":false,\"modes\":false,\"record\":false}");
}

TEST(View, HostileParametersAreOneLineRefusals) {
  Served s;
  for (const char* q :
       {"/api/map.png", "/api/map.png?bin=-1", "/api/map.png?bin=65", "/api/map.png?bin=abc",
        "/api/map.png?bin=3x", "/api/map.png?bin=99999999999999999999", "/api/map.png?bin=3&gain=0",
        "/api/map.png?bin=3&gain=nan", "/api/map.png?bin=3&gain=-2",
        "/api/map.png?bin=3&reference=1", "/api/map.png?bin=3&reference=2",
        "/api/spectrum?x=40&y=0", "/api/spectrum?x=0", "/api/spectrum?x=1.5&y=2"}) {
    SCOPED_TRACE(q);
    const auto r = s.Get(q);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 400);
    EXPECT_EQ(r->body.find('\n'), r->body.size() - 1) << r->body;
  }
  // Paths are never files.
  for (const char* q : {"/../p.hdr", "/p.hdr", "/api/../../etc/passwd", "/api/map.png/.."}) {
    SCOPED_TRACE(q);
    EXPECT_EQ(s.Get(q)->status, 404);
  }
}

TEST(View, MapsAreThoseOfTheMapCommandAndSpectraThoseOfTheCube) {
  Served s;
  for (const std::string gain : {"", "250"}) {
    const std::string png = s.dir.file("m" + gain + ".png");
    ASSERT_EQ(
        Cli("map " + s.header + " --bin 19 -o " + png + " --gain " + (gain.empty() ? "auto" : gain))
            .status,
        0);
    const auto r = s.Get("/api/map.png?bin=19" + (gain.empty() ? "" : "&gain=" + gain));
    ASSERT_EQ(r->status, 200);
    EXPECT_EQ(r->get_header_value("Content-Type"), "image/png");
    EXPECT_TRUE(r->body == test::ReadFile(png)) << "gain " << gain;
  }
  frfmap::CaptureHeader header;
  ASSERT_TRUE(header.Load(s.header));
  std::vector<std::complex<float>> want(65);
  std::string why;
  ASSERT_TRUE(ReadCubeSpectrum(s.header, header, 7, 11, want.data(), &why)) << why;
  const auto r = s.Get("/api/spectrum?x=7&y=11");
  ASSERT_EQ(r->status, 200);
  // The arrays in order: frequency_hz, re, im.
  const std::string& body = r->body;
  std::size_t at = body.find("\"re\":[") + 6;
  for (int k = 0; k < 65; ++k) {
    char* end = nullptr;
    const double re = std::strtod(body.c_str() + at, &end);
    EXPECT_FLOAT_EQ(static_cast<float>(re), want[k].real()) << k;
    at = static_cast<std::size_t>(end - body.c_str()) + 1;
  }
  EXPECT_NE(body.find("\"frequency_hz\":[0,7.8125,"), std::string::npos) << body.substr(0, 80);
}

// The mean over a rectangle small enough to be taken whole is the mean of
// its pixels' magnitudes; the image's own is the default.
TEST(View, MeanSpectraAreThoseOfTheirPixels) {
  Served s;
  frfmap::CaptureHeader header;
  ASSERT_TRUE(header.Load(s.header));
  std::vector<double> want(65, 0.0);
  std::vector<std::complex<float>> one(65);
  std::string why;
  for (unsigned y = 4; y < 8; ++y) {
    for (unsigned x = 10; x < 15; ++x) {
      ASSERT_TRUE(ReadCubeSpectrum(s.header, header, x, y, one.data(), &why)) << why;
      for (int k = 0; k < 65; ++k) want[k] += std::abs(one[k]) / 20.0;
    }
  }
  const auto r = s.Get("/api/mean_spectrum?x0=10&y0=4&x1=15&y1=8");
  ASSERT_EQ(r->status, 200) << r->body;
  std::size_t at = r->body.find("\"mean_magnitude\":[") + 18;
  for (int k = 0; k < 65; ++k) {
    char* end = nullptr;
    EXPECT_NEAR(std::strtod(r->body.c_str() + at, &end), want[k], 1e-6 * want[k] + 1e-9) << k;
    at = static_cast<std::size_t>(end - r->body.c_str()) + 1;
  }
  EXPECT_NE(r->body.find("\"pixels\":20,\"rectangle\":[10,4,15,8]"), std::string::npos);
  const auto whole = s.Get("/api/mean_spectrum");
  ASSERT_EQ(whole->status, 200);
  EXPECT_NE(whole->body.find("\"pixels\":1200,\"rectangle\":[0,0,40,30]"), std::string::npos);
  for (const char* q :
       {"x0=1&y0=1&x1=1&y1=5", "x0=0&y0=0&x1=41&y1=5", "x0=3", "x0=a&y0=0&x1=2&y1=2"}) {
    SCOPED_TRACE(q);
    EXPECT_EQ(s.Get(std::string("/api/mean_spectrum?") + q)->status, 400);
  }
}

// What --modes and --record give: the table, the chart, each mode's files,
// and nothing else of the folder.
TEST(View, ModesAndRecordComeFromTheirFilesOnly) {
  Served s(false, true);
  const auto modes = s.Get("/api/modes");
  ASSERT_EQ(modes->status, 200) << modes->body;
  EXPECT_NE(modes->body.find("{\"source\":\"modes\",\"modes\":[{\"mode\":1,\"frequency_hz\":60.0"),
            std::string::npos)
      << modes->body;
  EXPECT_NE(modes->body.find("\"files\":[\"shape.png\",\"shape.gif\",\"shape.npy\"]"),
            std::string::npos);
  const auto chart = s.Get("/api/chart");
  ASSERT_EQ(chart->status, 200);
  EXPECT_TRUE(chart->body == test::ReadFile(s.dir.file("modes/chart.json")));
  EXPECT_EQ(chart->body.find("\"sum_magnitude\":[]"), std::string::npos);  // the summed FRF
  const auto gif = s.Get("/api/mode/2/shape.gif");
  ASSERT_EQ(gif->status, 200);
  EXPECT_EQ(gif->get_header_value("Content-Type"), "image/gif");
  EXPECT_TRUE(gif->body == test::ReadFile(s.dir.file("modes/mode_2.gif")));

  // The record: its selected modes and its chart (without a magnitude).
  const auto rec = s.Get("/api/modes?source=record");
  ASSERT_EQ(rec->status, 200);
  EXPECT_EQ(rec->body.rfind("{\"source\":\"record\",\"modes\":[{\"mode\":1,", 0), 0u) << rec->body;
  const auto recChart = s.Get("/api/chart?source=record");
  ASSERT_EQ(recChart->status, 200);
  EXPECT_NE(recChart->body.find("\"orders\":[{\"order\":"), std::string::npos);
  EXPECT_NE(recChart->body.find("\"sum_magnitude\":[]"), std::string::npos);

  std::ofstream(s.dir.file("modes/secret.txt")) << "no";
  for (const char* q :
       {"/api/mode/0/shape.png", "/api/mode/4/shape.png", "/api/mode/1/disp.png",
        "/api/mode/1/secret.txt", "/api/mode/1/../modes.csv", "/api/mode/1/mode_1.png",
        "/api/mode/-1/shape.png", "/api/mode/1234567/shape.png", "/api/chart?source=elsewhere"}) {
    SCOPED_TRACE(q);
    const auto r = s.Get(q);
    EXPECT_GE(r->status, 400);
    EXPECT_LT(r->status, 500);
  }
  // Without them, the same requests say what is missing.
  Served bare;
  EXPECT_EQ(bare.Get("/api/modes")->status, 404);
  EXPECT_EQ(bare.Get("/api/chart?source=record")->status, 404);
  EXPECT_EQ(bare.Get("/api/mode/1/shape.png")->status, 404);
}

// A cube cut short or removed under the viewer gives refusals, and the
// server goes on answering.
TEST(View, ACubeCutUnderTheViewerGivesErrors) {
  Served s;
  ASSERT_EQ(s.Get("/api/map.png?bin=60")->status, 200);  // a reader is open on the cube
  const std::string cube = frfmap::DataFilePath(s.header, frfmap::DataFile::kCube, 1);
  for (const bool removed : {false, true}) {
    removed ? void(std::filesystem::remove(cube)) : std::filesystem::resize_file(cube, 100);
    for (const char* q : {"/api/map.png?bin=60", "/api/spectrum?x=3&y=3", "/api/mean_spectrum"}) {
      EXPECT_EQ(s.Get(q)->status, 409) << q << (removed ? ", cube removed" : ", cube cut");
    }
  }
  EXPECT_EQ(s.Get("/api/info")->status, 200);
}

TEST(View, ManyClientsAtOnceAreAllAnswered) {
  Served s(true);
  std::atomic<int> ok{0};
  std::vector<std::thread> clients;
  for (int c = 0; c < 12; ++c) {
    clients.emplace_back([&, c] {
      for (int i = 0; i < 25; ++i) {
        const int bin = (c * 25 + i) % 65;
        const auto r =
            s.Get("/api/map.png?bin=" + std::to_string(bin) + (i % 2 ? "&reference=1" : ""));
        if (r && r->status == 200 && r->body.size() > 8) ++ok;
      }
    });
  }
  for (std::thread& t : clients) t.join();
  EXPECT_EQ(ok.load(), 300);
}

}  // namespace
}  // namespace frfcam::cli
