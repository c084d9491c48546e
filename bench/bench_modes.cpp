// The modes pipeline from a rendered cube to every output, split into its
// stages: on the demo plate (brightness shapes; 512 x 384, 2000 frames) and
// at two and four times its pixel count, and on the moving beam
// (displacement shapes; 512 x 384 and 1024 x 1024). The baseline of each
// size is one parallel pass that reads every byte of the band's planes,
// timed in the same run, so the steps that stream the planes can be judged
// against it on a busy machine. For the beam, the displacement steps are
// the channels' pass (the windows' displacement spectra), the residues and
// the residues' conversion to displacement.
//
//   bench_modes [frames] [plate|beam]     (default 2000, both)
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <complex>
#include <cstdio>
#include <cstdlib>

#include "bench_support.h"
#include "formats/npy.h"
#include "frfmap/cube_files.h"
#include "frfmap/frf_map_calcs.h"
#include "modes/modes.h"

namespace frfcam::bench {
namespace {

constexpr int kRuns = 3;

// One read of every value of the band's planes (bins 1 .. bins - 1) into a
// buffer, in parallel, as the residue step reads them.
double ReadBandOnce(const std::string& header, unsigned pixels, unsigned bins) {
  frfmap::CubeFileSet cube;
  cube.Reset(header, frfmap::CubeLayout::For(pixels, bins));
  cube.SetMode(frfmap::CubeFileSet::Mode::kRead);
  const std::size_t planeBytes = std::size_t{pixels} * 8;
  // Planes of 64 MiB at a time, as the residue step reads them.
  const unsigned chunk = std::max<unsigned>(1, static_cast<unsigned>((64u << 20) / planeBytes));
  std::vector<float> buffer(std::size_t{chunk} * pixels * 2);
  // Every file is opened on this thread; the set opens lazily.
  for (unsigned b = 1; b < bins; ++b) {
    if (b == 1 || cube.layout().Locate(b).file != cube.layout().Locate(b - 1).file) {
      cube.ReadInPlane(b, 0, buffer.data(), 8);
    }
  }
  double total = 0.0;
  for (unsigned first = 1; first < bins; first += chunk) {
    const unsigned count = std::min(chunk, bins - first);
    tbb::parallel_for(0u, count, [&](unsigned b) {
      cube.ReadInPlane(first + b, 0, buffer.data() + std::size_t{b} * pixels * 2, planeBytes);
    });
    total += buffer[0];
  }
  return total;
}

struct Row {
  std::vector<double> read, reading, pole, residues, writing, total;
};

void Report(const char* label, unsigned w, unsigned h, const Row& r) {
  std::printf(
      "%-3s %4ux%-4u  read-once %6.2f / %6.2f   reading %5.2f / %5.2f   pole fit %5.2f / "
      "%5.2f   residues %5.2f / %5.2f   writing %5.2f / %5.2f   total %6.2f / %6.2f   "
      "residues/read %.2f\n",
      label, w, h, *std::min_element(r.read.begin(), r.read.end()), Median(r.read),
      *std::min_element(r.reading.begin(), r.reading.end()), Median(r.reading),
      *std::min_element(r.pole.begin(), r.pole.end()), Median(r.pole),
      *std::min_element(r.residues.begin(), r.residues.end()), Median(r.residues),
      *std::min_element(r.writing.begin(), r.writing.end()), Median(r.writing),
      *std::min_element(r.total.begin(), r.total.end()), Median(r.total),
      Median(r.residues) / Median(r.read));
  std::fflush(stdout);
}

}  // namespace
}  // namespace frfcam::bench

namespace frfcam::bench {
namespace {

int BeamSizes(int frames) {
  const struct { std::uint16_t w, h; } sizes[] = {{512, 384}, {1024, 1024}};
  std::printf(
      "\ndisplacement modes of the moving beam, %d frames at 2000 fps; seconds as min / median "
      "of %d runs\n",
      frames, kRuns);
  double basePerPixel = 0.0;
  for (const auto& size : sizes) {
    const std::string dir = BenchDir("modes-beam");
    frfmap::BeamSetup setup;
    setup.width = size.w;
    setup.height = size.h;
    setup.frames = frames;
    const frfmap::BeamScene scene(setup);
    const std::string header = SynthesiseBeam(dir, scene);
    modes::ModesOptions options;
    options.fps = setup.fps;
    const unsigned pixels = unsigned{size.w} * size.h;
    const unsigned bins = static_cast<unsigned>(frames / 2 + 1);
    ReadBandOnce(header, pixels, bins);  // warm the page cache
    std::vector<double> read, channels, pole, residues, flow, steps;
    std::size_t found = 0;
    for (int run = 0; run < kRuns; ++run) {
      read.push_back(Seconds([&] { ReadBandOnce(header, pixels, bins); }));
      modes::ModesResult r;
      if (modes::ComputeModes(header, scene.excitation(), options, &r) != modes::ModesStatus::kOk ||
          r.kind != modes::ShapeKind::kDisplacement) {
        std::fprintf(stderr, "modes failed\n");
        return 1;
      }
      found = r.modes.size();
      const auto s = [](std::chrono::nanoseconds t) {
        return std::chrono::duration<double>(t).count();
      };
      channels.push_back(s(r.times.reading));
      pole.push_back(s(r.times.poleFit));
      residues.push_back(s(r.times.residues));
      flow.push_back(s(r.times.flow));
      steps.push_back(s(r.times.reading) + s(r.times.residues) + s(r.times.flow));
    }
    const auto mm = [](const std::vector<double>& v) {
      return std::make_pair(*std::min_element(v.begin(), v.end()), Median(v));
    };
    std::printf(
        "%4ux%-4u read-once %6.2f / %6.2f   channels %5.2f / %5.2f   pole fit %5.2f / %5.2f   "
        "residues %5.2f / %5.2f   to displacement %5.2f / %5.2f   modes %zu\n",
        size.w, size.h, mm(read).first, mm(read).second, mm(channels).first, mm(channels).second,
        mm(pole).first, mm(pole).second, mm(residues).first, mm(residues).second, mm(flow).first,
        mm(flow).second, found);
    const double perPixel = Median(steps) / pixels;
    std::printf("    displacement steps / read-once %.2f (median)", Median(steps) / Median(read));
    if (basePerPixel > 0.0) {
      std::printf("; per pixel %.2fx the 512x384 time", perPixel / basePerPixel);
    } else {
      basePerPixel = perPixel;
    }
    std::printf("\n");
    std::fflush(stdout);
    RemoveDir(dir);
  }
  return 0;
}

}  // namespace
}  // namespace frfcam::bench

int main(int argc, char** argv) {
  using namespace frfcam;
  using namespace frfcam::bench;
  const int frames = argc > 1 ? std::atoi(argv[1]) : 2000;
  const std::string which = argc > 2 ? argv[2] : "";
  if (which == "beam") return BeamSizes(frames);
  const struct {
    const char* label;
    std::uint16_t w, h;
  } sizes[] = {{"1x", 512, 384}, {"2x", 1024, 384}, {"4x", 1024, 768}};
  std::printf("modes pipeline, %d frames at 2000 fps; seconds as min / median of %d runs\n", frames,
              kRuns);
  double base = 0.0;
  for (const auto& size : sizes) {
    const std::string dir = BenchDir("modes");
    const std::string header = SynthesiseCapture(dir, "plate", size.w, size.h, frames, 500);
    {
      frfmap::FrfMapCalcs calcs("bench");
      if (calcs.OpenCube(header) != 0 || calcs.RenderCube([](int) {}) != 0) {
        std::fprintf(stderr, "render failed\n");
        return 1;
      }
    }
    frfmap::SceneSetup scene_desc;
    scene_desc.width = size.w;
    scene_desc.height = size.h;
    scene_desc.frames = frames;
    const frfmap::PlateScene scene(scene_desc);
    modes::ModesOptions options;
    options.fps = 2000.0;
    const unsigned pixels = unsigned{size.w} * size.h;
    const unsigned bins = static_cast<unsigned>(frames / 2 + 1);

    ReadBandOnce(header, pixels, bins);  // warm the page cache
    Row row;
    for (int run = 0; run < kRuns; ++run) {
      row.read.push_back(Seconds([&] { ReadBandOnce(header, pixels, bins); }));
      modes::ModesResult result;
      const double compute = Seconds([&] {
        if (modes::ComputeModes(header, scene.excitation(), options, &result) !=
            modes::ModesStatus::kOk) {
          std::fprintf(stderr, "modes failed\n");
          std::exit(1);
        }
      });
      const double writing = Seconds([&] {
        for (std::size_t k = 0; k < result.modes.size(); ++k) {
          formats::WriteNpy(dir + "/mode_" + std::to_string(k + 1) + ".npy", {size.h, size.w},
                            result.modes[k].shape.data());
        }
      });
      const auto s = [](std::chrono::nanoseconds t) {
        return std::chrono::duration<double>(t).count();
      };
      row.reading.push_back(s(result.times.reading));
      row.pole.push_back(s(result.times.poleFit));
      row.residues.push_back(s(result.times.residues));
      row.writing.push_back(writing);
      row.total.push_back(compute + writing);
      if (run == 0 && result.modes.size() != 3) {
        std::fprintf(stderr, "warning: %zu modes found, 3 expected\n", result.modes.size());
      }
    }
    Report(size.label, size.w, size.h, row);
    if (base == 0.0) {
      base = Median(row.total);
    } else {
      std::printf("    total grows %.2fx for %ux the pixels\n", Median(row.total) / base,
                  pixels / (512u * 384u));
    }
    RemoveDir(dir);
  }
  return which == "plate" ? 0 : BeamSizes(frames);
}
