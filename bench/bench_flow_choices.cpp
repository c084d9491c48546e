// How the displacement shapes depend on the gradient filter and the window:
// on the synthetic beam under camera noise, at full and at a tenth of the
// motion, for each filter and window size, the modes found and, per mode,
// the MAC along the beam against the truth and the measured amplitude over
// the true one (the scene knows the displacement per unit force at
// resonance). The defaults of modes/optical_flow.h were chosen from this.
//
//   bench_flow_choices
#include <cmath>
#include <complex>
#include <cstdio>
#include <vector>

#include "bench_support.h"
#include "modes/modes.h"

namespace frfcam::bench {
namespace {

struct Score {
  double mac = 0.0, gain = 0.0;
};

// Along the beam: the x shape averaged across each row against the truth,
// both as the mode's displacement per unit force at resonance.
Score ScoreMode(const frfmap::BeamScene& scene, const modes::ModesResult& r, std::size_t found,
                std::size_t truth) {
  const frfmap::BeamRect rect = scene.beam();
  const std::complex<double> atPeak =
      scene.ModalFrf(truth, scene.setup().modes[truth].frequency_hz);
  std::vector<std::complex<double>> measured, expected;
  for (int y = rect.y0; y < rect.y1; ++y) {
    std::complex<double> sum = 0.0;
    int n = 0;
    for (int x = rect.x0; x < rect.x1; ++x) {
      const auto v = r.modes[found].dispX[static_cast<std::size_t>(y) * r.width + x];
      if (std::isfinite(v.real())) {
        sum += std::complex<double>(v);
        ++n;
      }
    }
    if (n == 0) continue;
    measured.push_back(sum / static_cast<double>(n));
    expected.push_back(atPeak * scene.Displacement(truth, (rect.x0 + rect.x1) / 2, y));
  }
  Score s;
  s.mac = modes::Mac(measured, expected);
  std::complex<double> cross = 0.0;
  double norm = 0.0;
  for (std::size_t i = 0; i < measured.size(); ++i) {
    cross += measured[i] * std::conj(expected[i]);
    norm += std::norm(expected[i]);
  }
  s.gain = norm > 0.0 ? std::abs(cross) / norm : 0.0;
  return s;
}

}  // namespace
}  // namespace frfcam::bench

int main() {
  using namespace frfcam;
  using namespace frfcam::bench;
  const struct {
    const char* name;
    modes::GradientOperator op;
  } filters[] = {{"central", modes::GradientOperator::kCentral},
                 {"five-point", modes::GradientOperator::kFivePoint},
                 {"sobel", modes::GradientOperator::kSobel}};
  const int radii[] = {1, 2, 3, 4, 6};
  for (double motion : {0.25, 0.025}) {
    frfmap::BeamSetup setup;
    setup.width = 96;
    setup.height = 256;
    setup.motion = motion;
    const frfmap::BeamScene scene(setup);
    const std::string dir = BenchDir("flow");
    const std::string header = SynthesiseBeam(dir, scene);
    std::printf("\nbeam 96x256, 2000 frames, 1 %% shot noise, mode 1 tip RMS %.3f px\n", motion);
    std::printf("%-11s %6s  %5s   %-22s %-22s %-22s\n", "filter", "window", "modes",
                "60 Hz: MAC / gain", "250 Hz: MAC / gain", "700 Hz: MAC / gain");
    for (const auto& f : filters) {
      for (int radius : radii) {
        modes::ModesOptions options;
        options.fps = setup.fps;
        options.flow.gradient = f.op;
        options.flow.radius = radius;
        modes::ModesResult r;
        std::string error;
        if (modes::ComputeModes(header, scene.excitation(), options, &r, &error) !=
            modes::ModesStatus::kOk) {
          std::printf("%-11s %4dx%-2d  failed: %s\n", f.name, 2 * radius + 1, 2 * radius + 1,
                      error.c_str());
          continue;
        }
        std::printf("%-11s %3dx%-3d %5zu  ", f.name, 2 * radius + 1, 2 * radius + 1,
                    r.modes.size());
        for (std::size_t t = 0; t < scene.setup().modes.size(); ++t) {
          const double hz = scene.setup().modes[t].frequency_hz;
          bool shown = false;
          for (std::size_t k = 0; k < r.modes.size() && !shown; ++k) {
            if (std::abs(r.modes[k].frequencyHz / hz - 1.0) < 0.01 && !r.modes[k].dispX.empty()) {
              const Score s = ScoreMode(scene, r, k, t);
              std::printf(" %.5f / %.3f        ", s.mac, s.gain);
              shown = true;
            }
          }
          if (!shown) std::printf(" %-22s", "not found");
        }
        std::printf("\n");
        std::fflush(stdout);
      }
    }
    RemoveDir(dir);
  }
  return 0;
}
