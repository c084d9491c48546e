// The render against the copy floor: reading the capture's division files and
// writing as many bytes as the cube, sequentially, measured in the same run.
// Also ReadFRFMap against reading a plane's bytes.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "bench_support.h"
#include "frfcam/frfcam.h"
#include "frfmap/naming.h"
#include "frfmap/render_settings.h"
#include "platform/platform.h"

using namespace frfcam;
namespace fs = std::filesystem;

namespace {

struct Figures {
  double floor, render;
};

// How the renders write their cubes: "auto" (the library's choice), "direct"
// or "cache" (every file written directly where possible, or through the
// cache: forced, for comparing the two in one run).
std::string write_mode = "auto";

std::string WriteMode(int w, int h) {
  if (write_mode == "cache") return "cube through the cache, forced";
  if ((static_cast<std::uint64_t>(w) * h) % 512 != 0) return "cube through the cache";
  if (write_mode == "direct") return "cube written directly, forced";
  char text[160];
  std::snprintf(text, sizeof text,
                "cube files within %.1f GB, a tenth of the available memory, through the cache, "
                "the others directly",
                platform::AvailablePhysicalMemory() / 10 / 1e9);
  return text;
}

void ReadAll(const std::string& header, unsigned files, std::vector<char>& chunk) {
  for (unsigned d = 1; d <= files; ++d) {
    const std::string path = frfmap::DataFilePath(header, frfmap::DataFile::kDivision, d);
    std::FILE* f = std::fopen(path.c_str(), "rb");
    while (f != nullptr && std::fread(chunk.data(), 1, chunk.size(), f) == chunk.size()) {
    }
    if (f != nullptr) std::fclose(f);
  }
}

// Reads the division files, then writes `bytes` sequentially in 2 GiB files.
void CopyFloor(const std::string& header, unsigned files, std::uint64_t bytes,
               const std::string& out_dir, std::vector<char>& chunk) {
  ReadAll(header, files, chunk);
  std::uint64_t left = bytes;
  for (int n = 1; left > 0; ++n) {
    std::FILE* f = std::fopen((out_dir + "/floor_" + std::to_string(n) + ".bin").c_str(), "wb");
    std::uint64_t in_file = 0;
    while (left > 0 && in_file < (2ull << 30)) {
      const std::size_t now = static_cast<std::size_t>(std::min<std::uint64_t>(left, chunk.size()));
      std::fwrite(chunk.data(), 1, now, f);
      left -= now;
      in_file += now;
    }
    std::fclose(f);
  }
}

void Clean(const std::string& header, const std::string& out_dir) {
  for (const auto& e : fs::directory_iterator(out_dir)) fs::remove(e.path());
  ::FrfMapCalcs* c = nullptr;
  DeleteCube(c, frfmap::DataFolder(header).c_str());
  ::sync();  // every timed run starts with no dirty pages of an earlier one
}

Figures Measure(const std::string& dir, const char* name, std::uint16_t w, std::uint16_t h,
                std::int32_t frames, int runs) {
  const std::string header = bench::SynthesiseCapture(dir, name, w, h, frames, 500);
  const unsigned files = static_cast<unsigned>((frames + 499) / 500);
  const std::uint64_t cube_bytes = 8ull * w * h * (frames / 2 + 1);
  const std::string out_dir = dir + "/floor";
  fs::create_directories(out_dir);
  // Writes of 256 KiB, the cheapest size measured: on Linux 6.18 with ext4,
  // in a virtual machine, buffered writes of 1 MiB and more cost
  // the kernel several times as much CPU and vary from run to run.
  std::vector<char> chunk(256 << 10);
  auto render_once = [&] {
    ::FrfMapCalcs* c = CreateFrfMapCalcs("bench");
    if (OpenCube(c, header.c_str()) != 0 || RenderCube(c, nullptr) != 0) {
      std::fprintf(stderr, "render failed\n");
      std::exit(1);
    }
    DeleteFrfMapCalcs(c);
  };
  ReadAll(header, files, chunk);  // warm the input
  // And both output paths: the first large write of a run lands in memory the
  // machine has never touched, which on virtual machines costs several times
  // the copy itself, and the first render of the process also starts the
  // pool's threads; one untimed pass of each makes every timed run start
  // alike.
  Clean(header, out_dir);
  CopyFloor(header, files, cube_bytes, out_dir, chunk);
  Clean(header, out_dir);
  render_once();

  std::vector<double> floor, render, floor_cpu, render_cpu;
  for (int i = 0; i < runs; ++i) {
    Clean(header, out_dir);
    floor_cpu.push_back(bench::CpuSeconds([&] {
      floor.push_back(
          bench::Seconds([&] { CopyFloor(header, files, cube_bytes, out_dir, chunk); }));
    }));
    Clean(header, out_dir);
    render_cpu.push_back(bench::CpuSeconds([&] { render.push_back(bench::Seconds(render_once)); }));
  }
  const Figures f{bench::Median(floor), bench::Median(render)};
  for (int i = 0; i < runs; ++i) {
    std::printf("  run %d: copy floor %.2f s (cpu %.2f s), render %.2f s (cpu %.2f s)\n", i + 1,
                floor[i], floor_cpu[i], render[i], render_cpu[i]);
  }
  const double floor_min = *std::min_element(floor.begin(), floor.end());
  const double render_min = *std::min_element(render.begin(), render.end());
  const double in_mb = ((w * h * 3.0 / 2 + 16) * frames) / 1e6;
  std::printf("%dx%d, %d frames: read %.0f MB, write %.0f MB (%s)\n", w, h, frames, in_mb,
              cube_bytes / 1e6, WriteMode(w, h).c_str());
  std::printf("  copy floor (read + write, sequential): %6.2f s\n", f.floor);
  std::printf("  OpenCube + RenderCube:                 %6.2f s   render / floor = %.2f\n",
              f.render, f.render / f.floor);
  std::printf("  minima: floor %.2f s, render %.2f s, render / floor = %.2f\n", floor_min,
              render_min, render_min / floor_min);
  // CPU time is what a loaded machine disturbs least; the render's includes
  // the transform's, on every core.
  const double fc = *std::min_element(floor_cpu.begin(), floor_cpu.end());
  const double rc = *std::min_element(render_cpu.begin(), render_cpu.end());
  std::printf("  cpu minima: floor %.2f s, render %.2f s, render / floor = %.2f\n", fc, rc,
              rc / fc);
  return f;
}

void MeasureMaps(const std::string& dir) {
  const std::string header = bench::SynthesiseCapture(dir, "maps", 512, 512, 400, 500);
  ::FrfMapCalcs* c = CreateFrfMapCalcs("maps");
  if (OpenCube(c, header.c_str()) != 0 || RenderCube(c, nullptr) != 0) std::exit(1);
  if (OpenCube(c, header.c_str()) != 0) std::exit(1);
  const std::size_t plane = 512 * 512 * 8;
  std::vector<unsigned char> map(512 * 512);
  std::vector<char> bytes(plane);
  platform::File cube;
  cube.Open(frfmap::DataFilePath(header, frfmap::DataFile::kCube, 1), platform::File::Mode::kRead);
  const int bins = 201, rounds = 5;
  std::vector<double> t_map, t_read, c_map, c_read;
  for (int r = 0; r < rounds; ++r) {
    c_read.push_back(bench::CpuSeconds([&] {
      t_read.push_back(bench::Seconds([&] {
        for (int b = 0; b < bins; ++b)
          cube.ReadAt(static_cast<std::uint64_t>(b) * plane, bytes.data(), plane);
      }));
    }));
    c_map.push_back(bench::CpuSeconds([&] {
      t_map.push_back(bench::Seconds([&] {
        for (int b = 0; b < bins; ++b) ReadFRFMap(c, b, 2.0f, map.data());
      }));
    }));
  }
  const double m = bench::Median(t_map) / bins, rd = bench::Median(t_read) / bins;
  std::printf("512x512 map: ReadFRFMap %.3f ms, reading the plane's bytes %.3f ms: ratio %.2f\n",
              m * 1e3, rd * 1e3, m / rd);
  const double mn = *std::min_element(t_map.begin(), t_map.end());
  const double rn = *std::min_element(t_read.begin(), t_read.end());
  const double cm = *std::min_element(c_map.begin(), c_map.end());
  const double cr = *std::min_element(c_read.begin(), c_read.end());
  std::printf("  minima: ratio %.2f; cpu minima: ReadFRFMap %.3f ms, read %.3f ms: ratio %.2f\n",
              mn / rn, cm / bins * 1e3, cr / bins * 1e3, cm / cr);
  DeleteFrfMapCalcs(c);
}

}  // namespace

// Arguments: [runs (3)] [all | even | prime | small | large | maps]
// [auto | direct | cache]: even and prime are 512 x 512 with 2000 and 1999
// frames, small 384 x 384 x 1000, large 1024 x 1024 x 2000 (3 GB in, 8.4 GB
// of cube; not part of "all"). The last argument forces how cubes are
// written: directly where possible, or through the cache.
int main(int argc, char** argv) {
  const std::string dir = bench::BenchDir("render");
  bench::WarmMemory(std::size_t{2} << 30);
  const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
  const std::string which = argc > 2 ? argv[2] : "all";
  write_mode = argc > 3 ? argv[3] : "auto";
  if (write_mode == "direct") frfmap::SetCachedCubeBytes(0);
  if (write_mode == "cache") frfmap::SetCachedCubeBytes(frfmap::kCachedCubeBytesAll);
  if (which != "all") {
    if (which == "even") Measure(dir, "even", 512, 512, 2000, runs);
    if (which == "prime") Measure(dir, "prime", 512, 512, 1999, runs);
    if (which == "small") Measure(dir, "small", 384, 384, 1000, runs);
    if (which == "large") Measure(dir, "large", 1024, 1024, 2000, runs);
    if (which == "maps") MeasureMaps(dir);
    bench::RemoveDir(dir);
    return 0;
  }
  Measure(dir, "small", 384, 384, 1000, runs);
  const Figures even = Measure(dir, "even", 512, 512, 2000, runs);
  const Figures prime = Measure(dir, "prime", 512, 512, 1999, runs);
  std::printf("prime-length render / 2000-frame render = %.2f\n", prime.render / even.render);
  MeasureMaps(dir);
  bench::RemoveDir(dir);
  return 0;
}
