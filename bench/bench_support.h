// Shared pieces of the benchmarks: timing, medians and synthetic captures.
#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "frfmap/beam_scene.h"
#include "frfmap/capture_writer.h"
#include "frfmap/frf_map_calcs.h"
#include "frfmap/synthetic_scene.h"
#include "platform/platform.h"

namespace frfcam::bench {

inline double Seconds(const std::function<void()>& f) {
  const auto t0 = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// CPU seconds (user + system, every thread of the process) spent in f.
inline double CpuSeconds(const std::function<void()>& f) {
  auto now = [] {
    rusage u{};
    ::getrusage(RUSAGE_SELF, &u);
    return u.ru_utime.tv_sec + u.ru_stime.tv_sec + 1e-6 * (u.ru_utime.tv_usec + u.ru_stime.tv_usec);
  };
  const double t0 = now();
  f();
  return now() - t0;
}

// Touches `bytes` of memory once, in large pages, and gives it back. On
// these virtual machines the first touch of a page the guest has never used
// costs the host's allocation, several seconds a GiB, and the render's large
// page buffers land in such memory: without this, a render would be timed
// partly on the machine's history.
inline void WarmMemory(std::size_t bytes) {
  void* p = std::aligned_alloc(2u << 20, bytes);
  if (p == nullptr) return;
  platform::AdviseLargePages(p, bytes);
  volatile char* page = static_cast<volatile char*>(p);
  for (std::size_t i = 0; i < bytes; i += 4096) page[i] = 1;
  std::free(p);
}

inline double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// A 12-bit capture of the synthetic plate, written once per run.
inline std::string SynthesiseCapture(const std::string& dir, const std::string& name,
                                     std::uint16_t w, std::uint16_t h, std::int32_t frames,
                                     std::uint32_t frames_per_file) {
  const std::string header = dir + "/" + name + ".hdr";
  frfmap::SceneSetup scene;
  scene.width = w;
  scene.height = h;
  scene.frames = frames;
  scene.fps = 2000.0;
  const frfmap::PlateScene plate(scene);
  frfmap::CaptureDesc desc;
  desc.width = w;
  desc.height = h;
  desc.frames = frames;
  desc.fps = scene.fps;
  desc.pixel_format = 1;
  desc.frames_per_file = frames_per_file;
  std::string error;
  if (!frfmap::WriteCapture(
          header, desc, [&](std::int32_t f, std::uint16_t* s) { plate.Frame(f, s); }, &error)) {
    std::fprintf(stderr, "cannot write the capture: %s\n", error.c_str());
    std::exit(1);
  }
  return header;
}

// A 12-bit capture of the synthetic beam, its cube rendered.
inline std::string SynthesiseBeam(const std::string& dir, const frfmap::BeamScene& beam) {
  const std::string header = dir + "/beam.hdr";
  frfmap::CaptureDesc desc;
  desc.width = beam.setup().width;
  desc.height = beam.setup().height;
  desc.frames = beam.setup().frames;
  desc.fps = beam.setup().fps;
  desc.pixel_format = 1;
  desc.frames_per_file = 500;
  std::string error;
  if (!frfmap::WriteCapture(
          header, desc, [&](std::int32_t f, std::uint16_t* s) { beam.Frame(f, s); }, &error)) {
    std::fprintf(stderr, "cannot write the capture: %s\n", error.c_str());
    std::exit(1);
  }
  frfmap::FrfMapCalcs calcs("bench");
  if (calcs.OpenCube(header) != 0 || calcs.RenderCube([](int) {}) != 0) {
    std::fprintf(stderr, "render failed\n");
    std::exit(1);
  }
  return header;
}

// A scratch folder for one benchmark run, below $FRFCAM_BENCH_DIR or /tmp.
inline std::string BenchDir(const char* name) {
  const char* base = std::getenv("FRFCAM_BENCH_DIR");
  std::string dir = std::string(base != nullptr ? base : "/tmp") + "/frfcam-bench-" + name + "-" +
                    std::to_string(::getpid());
  std::string cmd = "rm -rf '" + dir + "' && mkdir -p '" + dir + "'";
  if (std::system(cmd.c_str()) != 0) std::exit(1);
  return dir;
}

inline void RemoveDir(const std::string& dir) {
  const std::string cmd = "rm -rf '" + dir + "'";
  if (std::system(cmd.c_str()) != 0) std::fprintf(stderr, "could not remove %s\n", dir.c_str());
}

}  // namespace frfcam::bench
