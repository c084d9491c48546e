// The viewer's HTTP API as a script or the page uses it: the token rule,
// hostile parameters, maps equal to `frfcam map`, spectra equal to the cube,
// and many clients at once.
#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <complex>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "cube_state.h"
#include "frfmap/capture_header.h"
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

  explicit Served(bool withReference = false) {
    EXPECT_EQ(Cli("synth " + header + " --width 40 --height 30 --frames 128 --fps 1000").status, 0);
    EXPECT_EQ(Cli("render " + header).status, 0);
    ViewOptions o;
    o.header = header;
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
        Cli("map " + s.header + " --bin 19 -o " + png + (gain.empty() ? "" : " --gain " + gain))
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
