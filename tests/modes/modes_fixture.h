// A rendered synthetic capture for the modes tests: the scene, its capture
// and cube in a scratch folder, and the true shapes to compare with.
#pragma once

#include <gtest/gtest.h>

#include <complex>
#include <string>
#include <vector>

#include "frfmap/beam_scene.h"
#include "frfmap/capture_fixture.h"
#include "frfmap/frf_map_calcs.h"
#include "frfmap/synthetic_scene.h"
#include "support/test_support.h"

namespace frfcam::modes::test {

// Writes a scene's capture and renders its cube.
template <class Scene>
void WriteAndRender(const std::string& header, const Scene& scene, std::uint16_t width,
                    std::uint16_t height, std::int32_t frames, double fps,
                    std::uint32_t format = frfmap::format::kPixelFormat12BitPacked) {
  const frfmap::CaptureDesc desc = frfmap::MakeCapture(width, height, frames, format, 500, fps);
  std::string error;
  const bool written = frfmap::WriteCapture(
      header, desc, [&](std::int32_t f, std::uint16_t* s) { scene.Frame(f, s); }, &error);
  EXPECT_TRUE(written) << error;
  frfmap::FrfMapCalcs calcs("test");
  EXPECT_EQ(calcs.OpenCube(header), 0);
  EXPECT_EQ(calcs.RenderCube([](int) {}), 0);
}

struct RenderedScene {
  explicit RenderedScene(const frfmap::SceneSetup& scene_desc, const std::string& name = "scene")
      : scene(scene_desc) {
    header = dir.file(name + ".hdr");
    WriteAndRender(header, scene, scene_desc.width, scene_desc.height, scene_desc.frames,
                   scene_desc.fps);
  }

  // The brightness response of mode k at every pixel, raster order.
  std::vector<std::complex<double>> TrueShape(std::size_t k) const {
    const auto& d = scene.desc();
    std::vector<std::complex<double>> v(static_cast<std::size_t>(d.width) * d.height);
    for (int y = 0; y < d.height; ++y) {
      for (int x = 0; x < d.width; ++x) {
        v[static_cast<std::size_t>(y) * d.width + x] = scene.Texture(x, y) * scene.Shape(k, x, y);
      }
    }
    return v;
  }

  frfcam::test::ScratchDir dir;
  frfmap::PlateScene scene;
  std::string header;
};

// A beam scene's capture (12-bit packed or 8-bit) and cube.
struct RenderedBeam {
  explicit RenderedBeam(const frfmap::BeamSetup& setup, int bits = 12) : scene(setup) {
    header = dir.file("beam.hdr");
    WriteAndRender(
        header, scene, setup.width, setup.height, setup.frames, setup.fps,
        bits == 8 ? frfmap::format::kPixelFormat8Bit : frfmap::format::kPixelFormat12BitPacked);
  }

  frfcam::test::ScratchDir dir;
  frfmap::BeamScene scene;
  std::string header;
};

inline frfmap::SceneSetup SmallScene(frfmap::SceneKind kind, std::vector<frfmap::PlateMode> modes) {
  frfmap::SceneSetup s;
  s.width = 96;
  s.height = 72;
  s.frames = 1000;
  s.fps = 2000.0;
  s.kind = kind;
  s.modes = std::move(modes);
  return s;
}

}  // namespace frfcam::modes::test
