// The viewer's maps: from request to PNG over HTTP against making the same
// PNG in the process (the library's map read plus the encoder), at 512x512
// and 1024x1024, for one client and for 12 clients at once.
//
//   bench_view [rounds]
#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "cube_render.h"
#include "map_image.h"
#include "png_writer.h"
#include "view/view_server.h"

// Last: it brings in <resolv.h>, whose _res macro breaks Eigen's headers.
#include <httplib.h>

using namespace frfcam;

namespace {

constexpr int kBins = 33;  // 64 frames

struct Figures {
  std::vector<double> direct, served;
};

void Report(const char* what, const Figures& f) {
  const double dmin = *std::min_element(f.direct.begin(), f.direct.end());
  const double smin = *std::min_element(f.served.begin(), f.served.end());
  const double dmed = bench::Median(f.direct), smed = bench::Median(f.served);
  std::printf(
      "  %-30s in process %7.2f ms (median %7.2f), served %7.2f ms (median %7.2f): "
      "ratio %.2f min, %.2f median\n",
      what, 1e3 * dmin, 1e3 * dmed, 1e3 * smin, 1e3 * smed, smin / dmin, smed / dmed);
}

void Run(const std::string& dir, int side, int rounds) {
  const std::string header =
      bench::SynthesiseCapture(dir, "v" + std::to_string(side), static_cast<std::uint16_t>(side),
                               static_cast<std::uint16_t>(side), 64, 64);
  cli::Calcs calcs;
  cli::OpenCapture(calcs.c, header);
  if (RenderCube(calcs.c, nullptr) != 0) std::exit(1);
  cli::ViewOptions o;
  o.header = header;
  cli::ViewServer server(o);
  const std::string url = server.Start();
  const int port = std::atoi(url.substr(url.rfind(':') + 1).c_str());
  const std::string token = server.token();
  httplib::Client client("127.0.0.1", port);
  client.set_keep_alive(true);
  const unsigned w = static_cast<unsigned>(side);

  std::printf("%dx%d, %d bins, %d rounds (one client, keep-alive):\n", side, side, kBins, rounds);
  for (const bool automatic : {false, true}) {
    Figures f;
    std::size_t bytes = 0;
    for (int round = 0; round <= rounds; ++round) {
      for (int bin = 1; bin < kBins; bin += 3) {
        // Alternate: the in-process PNG, then the served one, bin by bin.
        const double d = bench::Seconds([&] {
          const cli::MapImage m = cli::ComputeMap(calcs.c, bin, automatic ? 0.0f : 40.0f, -1, w, w);
          bytes = cli::GrayPng(m.pixels.data(), w, w).size();
        });
        const std::string path = "/api/map.png?bin=" + std::to_string(bin) +
                                 (automatic ? "" : "&gain=40") + "&token=" + token;
        std::size_t got = 0;
        const double s = bench::Seconds([&] {
          const auto r = client.Get(path);
          if (!r || r->status != 200) std::exit(1);
          got = r->body.size();
        });
        if (got != bytes) std::exit(1);
        if (round > 0) {  // the first round warms the page cache and the pool
          f.direct.push_back(d);
          f.served.push_back(s);
        }
      }
    }
    Report(automatic ? "map, automatic gain" : "map, fixed gain", f);
  }

  // Load: 12 clients of 25 maps each against the same 300 maps made one
  // after another in the process.
  for (int round = 0; round < 2; ++round) {
    const double direct = bench::Seconds([&] {
      for (int i = 0; i < 300; ++i) {
        const cli::MapImage m = cli::ComputeMap(calcs.c, 1 + i % (kBins - 1), 40.0f, -1, w, w);
        (void)cli::GrayPng(m.pixels.data(), w, w);
      }
    });
    std::atomic<int> ok{0};
    const double served = bench::Seconds([&] {
      std::vector<std::thread> clients;
      for (int c = 0; c < 12; ++c) {
        clients.emplace_back([&, c] {
          httplib::Client one("127.0.0.1", port);
          one.set_keep_alive(true);
          for (int i = 0; i < 25; ++i) {
            const auto r =
                one.Get("/api/map.png?bin=" + std::to_string(1 + (c * 25 + i) % (kBins - 1)) +
                        "&gain=40&token=" + token);
            if (r && r->status == 200) ++ok;
          }
        });
      }
      for (std::thread& t : clients) t.join();
    });
    if (ok.load() != 300) std::exit(1);
    std::printf(
        "  300 maps, fixed gain: one after another in process %.0f maps/s, "
        "12 clients served %.0f maps/s: ratio %.2f\n",
        300 / direct, 300 / served, direct / served);
  }
  server.Stop();
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 5;
  const std::string dir = bench::BenchDir("view");
  for (const int side : {512, 1024}) Run(dir, side, rounds);
  bench::RemoveDir(dir);
  return 0;
}
