// Writes the seed corpora of the harnesses into OUT/<harness>/ with the
// library's own writers, packed as each harness reads its input (see the
// harnesses' comments). Usage: fuzz_seeds OUT
#include <zlib.h>

#include <cmath>
#include <complex>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "formats/npy.h"
#include "formats/uff.h"
#include "frfmap/capture_format.h"
#include "frfmap/capture_writer.h"
#include "frfmap/cube_record.h"
#include "fuzz_support.h"
#include "stability/synthetic.h"
#include "stability_csv.h"

using namespace frfcam;
using Bytes = std::vector<std::uint8_t>;

namespace {

std::string out_dir;

void Put(const std::string& harness, const std::string& name, const Bytes& b) {
  std::filesystem::create_directories(out_dir + "/" + harness);
  std::ofstream(out_dir + "/" + harness + "/" + name, std::ios::binary)
      .write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
}

Bytes Load(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void U8(Bytes& b, std::uint8_t v) { b.push_back(v); }
void U16(Bytes& b, std::uint16_t v) {
  b.push_back(static_cast<std::uint8_t>(v));
  b.push_back(static_cast<std::uint8_t>(v >> 8));
}
void U32(Bytes& b, std::uint32_t v) {
  U16(b, static_cast<std::uint16_t>(v));
  U16(b, static_cast<std::uint16_t>(v >> 16));
}
void Append(Bytes& b, const Bytes& more) { b.insert(b.end(), more.begin(), more.end()); }
template <class T>
void Raw(Bytes& b, T v) {
  std::uint8_t p[sizeof v];
  std::memcpy(p, &v, sizeof v);
  b.insert(b.end(), p, p + sizeof v);
}

// ---- capture ----
void CaptureSeed(const std::string& name, const frfmap::CaptureSpec& spec, std::uint32_t first,
                 std::uint16_t n, std::uint8_t frames) {
  fuzz::RemoveScratch("seed");
  const std::string header_path = fuzz::ScratchDir() + "seed/c.hdr";
  std::filesystem::create_directories(fuzz::ScratchDir() + "seed");
  std::string error;
  const std::size_t pixels = static_cast<std::size_t>(spec.width) * spec.height;
  if (!frfmap::WriteCapture(
          header_path, spec,
          [&](std::int32_t f, std::uint16_t* s) {
            for (std::size_t p = 0; p < pixels; ++p) s[p] = (f * 37 + p * 101) % 4096;
          },
          &error)) {
    std::fprintf(stderr, "%s\n", error.c_str());
    std::exit(1);
  }
  // Fields past a short header read as zero, so its trailing zeros go.
  Bytes header = Load(header_path);
  while (!header.empty() && header.back() == 0) header.pop_back();
  const std::string dir = fuzz::ScratchDir() + "seed/c/";
  const Bytes file1 = Load(dir + (spec.single_file ? "c.cap" : "c_0001.div"));
  const Bytes file2 = spec.single_file ? Bytes{} : Load(dir + "c_0002.div");
  Bytes b;
  U8(b, 1);
  U32(b, first);
  U16(b, n);
  U8(b, frames);
  U16(b, static_cast<std::uint16_t>(header.size()));
  Append(b, header);
  U32(b, static_cast<std::uint32_t>(file1.size()));
  Append(b, file1);
  Append(b, file2);
  Put("capture", name, b);
}

frfmap::CaptureSpec Spec(std::uint16_t w, std::uint16_t h, std::int32_t frames,
                         std::uint32_t format, std::uint32_t per_file) {
  frfmap::CaptureSpec s;
  s.width = w;
  s.height = h;
  s.frames = frames;
  s.fps = 1000.0;
  s.pixel_format = format;
  s.frames_per_file = per_file;
  return s;
}

void CaptureSeeds() {
  CaptureSeed("div12", Spec(4, 3, 6, 1, 4), 1, 9, 6);
  CaptureSeed("div12-odd", Spec(3, 3, 3, 1, 2), 0, 9, 3);
  CaptureSeed("div8", Spec(5, 2, 3, 0, 2), 2, 7, 3);
  frfmap::CaptureSpec cap = Spec(7, 2, 4, 1, 500);
  cap.single_file = true;
  cap.ring_slots = 6;
  cap.first_slot = 3;
  CaptureSeed("cap-ring", cap, 3, 8, 4);
}

// ---- cube ----
void CubeSeed(const std::string& name, std::uint8_t w, std::uint8_t h, std::int16_t frames,
              std::uint8_t flags, bool complete, std::size_t planes) {
  const std::uint32_t bins = static_cast<std::uint32_t>(frames / 2 + 1);
  fuzz::RemoveScratch("seed");
  const std::string header_path = fuzz::ScratchDir() + "seed/c.hdr";
  std::filesystem::create_directories(fuzz::ScratchDir() + "seed/c");
  frfmap::CubeRecordWriter writer;
  if (!writer.Begin(header_path, w, h, bins) || !writer.SetRows(h / 2) ||
      (complete && !writer.Complete())) {
    std::fprintf(stderr, "cannot write a cube record\n");
    std::exit(1);
  }
  writer.Close();
  const Bytes record = Load(fuzz::ScratchDir() + "seed/c/c.fft");
  Bytes b;
  U8(b, w);
  U8(b, h);
  U16(b, static_cast<std::uint16_t>(frames));
  U8(b, flags);
  U8(b, 1);
  U8(b, 128 + 2);
  Raw(b, 4.0f);
  Append(b, record);
  for (std::size_t i = 0; i < planes * w * h; ++i) {
    Raw(b, static_cast<float>(std::sin(0.3 * i) * 20.0));
    Raw(b, static_cast<float>(std::cos(0.7 * i) * 10.0));
  }
  Put("cube", name, b);
}

void CubeSeeds() {
  CubeSeed("complete", 4, 3, 8, 0, true, 5);
  CubeSeed("complete-reference", 3, 2, 6, 8, true, 4);
  CubeSeed("incomplete", 4, 4, 4, 0, false, 3);
  CubeSeed("no-record-short", 5, 2, 10, 4 | 16, true, 2);
}

// ---- uff ----
formats::Uff58 Function(int type, bool even, int points, long node) {
  formats::Uff58 f;
  f.ordinateType = type;
  f.evenAbscissa = even;
  f.responseNode = node;
  f.responseDirection = 3;
  f.referenceNode = 1;
  f.referenceDirection = -3;
  for (int k = 0; k < points; ++k) {
    f.x.push_back(even ? 10.0 + 2.5 * k : 10.0 + 2.5 * k * k);
    f.y.emplace_back(1.0 / (1.0 + k), f.complex() ? -0.5 * k : 0.0);
  }
  return f;
}

void UffSeeds() {
  auto put = [](const std::string& name, const std::string& text) {
    Put("uff", name, Bytes(text.begin(), text.end()));
  };
  put("ascii-complex-double", formats::FormatUff58({Function(6, true, 4, 11)}, false));
  put("ascii-real-single-uneven", formats::FormatUff58({Function(2, false, 5, 12)}, false));
  put("ascii-complex-uneven", formats::FormatUff58({Function(6, false, 3, 13)}, false));
  put("binary-complex-single", formats::FormatUff58({Function(5, true, 4, 14)}, true));
  put("binary-real-double-uneven",
      formats::FormatUff58({Function(4, false, 3, 15), Function(5, true, 2, 16)}, true));
  // Another dataset type before the function, which the reader skips.
  put("skipped-151",
      "    -1\n   151\nmodel\n    -1\n" + formats::FormatUff58({Function(5, true, 3, 17)}, false));
}

// ---- stability CSV ----
void CsvSeeds() {
  cli::FrfTable table;
  table.channels.resize(2);
  for (int i = 0; i < 4; ++i) {
    table.frequencyHz.push_back(5.0 + i);
    table.channels[0].emplace_back(0.1 * i, -0.2 * i);
    table.channels[1].emplace_back(1.0 / (i + 1), 3e-5 * i);
  }
  const std::string path = fuzz::ScratchDir() + "seed.csv";
  cli::WriteFrfCsv(path, table);
  Put("stability_csv", "written", Load(path));
  const std::string hand = "1, 0.5,-0.25\n\n 2 ,\t1e-3, 7E2\r\n3,0,0";
  Put("stability_csv", "padded-no-header", Bytes(hand.begin(), hand.end()));
}

// ---- npy / npz ----
Bytes Npy(formats::NpyType type, const std::vector<std::uint64_t>& shape) {
  std::uint64_t count = 1;
  for (auto d : shape) count *= d;
  std::vector<std::uint8_t> data(count * formats::NpyElementBytes(type));
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<std::uint8_t>(i * 7 + 0x3f);
  // Finite values for the float types: small multiples of a quarter.
  const std::size_t width =
      type == formats::NpyType::kFloat32 || type == formats::NpyType::kComplex64 ? 4 : 8;
  for (std::size_t i = 0; i * width < data.size(); ++i) {
    if (width == 4) {
      const float v = 0.25f * static_cast<float>(i) + 1.0f;
      std::memcpy(&data[i * 4], &v, 4);
    } else {
      const double v = 0.25 * static_cast<double>(i) + 1.0;
      std::memcpy(&data[i * 8], &v, 8);
    }
  }
  const std::string path = fuzz::ScratchDir() + "seed.npy";
  if (formats::WriteNpy(path, type, shape, data.data()) != formats::NpyStatus::kOk) std::exit(1);
  return Load(path);
}

// A zip archive of .npy members, stored or deflated (raw deflate, as zip has
// it), with the local headers, the central directory and its end record.
Bytes Zip(const std::vector<std::pair<std::string, Bytes>>& members, bool compress) {
  Bytes out, central;
  for (const auto& member : members) {
    const std::string& name = member.first;
    const Bytes& data = member.second;
    Bytes body = data;
    if (compress) {
      z_stream z{};
      deflateInit2(&z, 9, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
      body.resize(deflateBound(&z, data.size()));
      z.next_in = const_cast<Bytef*>(data.data());
      z.avail_in = static_cast<uInt>(data.size());
      z.next_out = body.data();
      z.avail_out = static_cast<uInt>(body.size());
      deflate(&z, Z_FINISH);
      body.resize(z.total_out);
      deflateEnd(&z);
    }
    const std::uint32_t crc = crc32(0, data.data(), static_cast<uInt>(data.size()));
    const std::uint32_t offset = static_cast<std::uint32_t>(out.size());
    const std::string file = name + ".npy";
    auto common = [&](Bytes& b) {
      U16(b, 20);  // version needed
      U16(b, 0);   // flags
      U16(b, compress ? 8 : 0);
      U32(b, 0);  // time, date
      U32(b, crc);
      U32(b, static_cast<std::uint32_t>(body.size()));
      U32(b, static_cast<std::uint32_t>(data.size()));
      U16(b, static_cast<std::uint16_t>(file.size()));
      U16(b, 0);  // extra
    };
    U32(out, 0x04034b50);
    common(out);
    out.insert(out.end(), file.begin(), file.end());
    Append(out, body);
    U32(central, 0x02014b50);
    U16(central, 20);  // made by
    common(central);
    U16(central, 0);  // comment
    U16(central, 0);  // disk
    U16(central, 0);  // internal attributes
    U32(central, 0);  // external attributes
    U32(central, offset);
    central.insert(central.end(), file.begin(), file.end());
  }
  const std::uint32_t at = static_cast<std::uint32_t>(out.size());
  Append(out, central);
  U32(out, 0x06054b50);
  U16(out, 0);
  U16(out, 0);
  U16(out, static_cast<std::uint16_t>(members.size()));
  U16(out, static_cast<std::uint16_t>(members.size()));
  U32(out, static_cast<std::uint32_t>(central.size()));
  U32(out, at);
  U16(out, 0);
  return out;
}

void NpySeeds() {
  using formats::NpyType;
  Put("npy", "f4-1d", Npy(NpyType::kFloat32, {5}));
  Put("npy", "f8-2d", Npy(NpyType::kFloat64, {2, 3}));
  Put("npy", "c8-scalar", Npy(NpyType::kComplex64, {}));
  Put("npy", "c16-3d", Npy(NpyType::kComplex128, {2, 1, 2}));
  Put("npy", "f8-empty", Npy(NpyType::kFloat64, {0, 4}));

  const Bytes freq = Npy(NpyType::kFloat64, {4});
  Put("npz", "named-stored",
      Zip({{"frequencies_hz", freq}, {"frf", Npy(NpyType::kComplex128, {4, 2})}}, false));
  Put("npz", "named-deflated", Zip({{"f", freq}, {"H", Npy(NpyType::kComplex64, {3, 4})}}, true));
  Put("npz", "two-arrays", Zip({{"a", Npy(NpyType::kComplex128, {4})}, {"b", freq}}, false));
}

// ---- stability inputs ----
void Tagged(Bytes& b, double v) {
  U8(b, 0x80);
  Raw(b, v);
}

void StabilitySeed(const std::string& name, int lines, int channels, int min_order, int max_order,
                   std::uint8_t flags, bool grid) {
  stability::SyntheticSystem system;
  system.modes = {{12.0, 0.02}, {31.0, 0.01}};
  system.fMinHz = 5.0;
  system.fMaxHz = 40.0;
  system.numLines = lines;
  system.numChannels = channels;
  const stability::SyntheticFrfs s = stability::SynthesizeFrfs(system);
  Bytes b;
  U8(b, static_cast<std::uint8_t>(lines));
  U8(b, static_cast<std::uint8_t>(channels));
  U8(b, static_cast<std::uint8_t>(min_order));
  U8(b, static_cast<std::uint8_t>(max_order - min_order + 2));
  U8(b, static_cast<std::uint8_t>(flags | (grid ? 4 : 0)));
  Tagged(b, 0.01);
  Tagged(b, 0.01);
  Tagged(b, 0.05);
  U8(b, 2);
  if (grid) {
    Tagged(b, s.omega[0]);
    Tagged(b, s.omega[1] - s.omega[0]);
  } else {
    for (int i = 0; i < lines; ++i) Tagged(b, s.omega[i]);
  }
  for (int i = 0; i < lines; ++i) {
    Tagged(b, s.frf[i].real());
    Tagged(b, s.frf[i].imag());
  }
  if ((flags & 8) == 0) {
    for (int c = 0; c < channels; ++c) {
      for (int i = 0; i < lines; ++i) {
        Tagged(b, s.matrix(i, c).real());
        Tagged(b, s.matrix(i, c).imag());
      }
    }
  }
  Put("stability", name, b);
}

void StabilitySeeds() {
  StabilitySeed("two-modes-grid", 24, 2, 2, 8, 0, true);
  StabilitySeed("two-modes-listed", 16, 1, 1, 5, 1, false);
  StabilitySeed("matrix-is-frf", 20, 3, 3, 9, 2 | 8, true);
  StabilitySeed("tiny", 2, 1, 1, 2, 0, false);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: fuzz_seeds OUT\n");
    return 2;
  }
  out_dir = argv[1];
  CaptureSeeds();
  CubeSeeds();
  UffSeeds();
  CsvSeeds();
  NpySeeds();
  StabilitySeeds();
  return 0;
}
