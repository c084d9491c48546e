// synth: writes a synthetic capture of a vibrating plate or of a moving
// cantilever beam; info: describes a capture's header and the data files it
// implies.
#include <algorithm>
#include <array>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "camera/mraw_writer.h"
#include "commands.h"
#include "frfmap/beam_scene.h"
#include "frfmap/capture_format.h"
#include "frfmap/capture_header.h"
#include "frfmap/capture_writer.h"
#include "frfmap/layout.h"
#include "frfmap/naming.h"
#include "frfmap/synthetic_scene.h"
#include "platform/platform.h"

namespace frfcam::cli {

namespace {

using frfmap::DataFile;
using frfmap::DataFilePath;
namespace format = frfmap::format;

struct SynthOptions {
  std::string header;
  std::string scene = "plate";
  // Size, length and noise default by scene; 0 or -1 here: not given.
  long long width = 0;
  long long height = 0;
  long long frames = 0;
  double fps = 2000.0;
  int bits = 12;
  long long frames_per_file = 500;
  bool single_file = false;
  long long ring_slots = 0;
  long long first_slot = 0;
  double noise = -1.0;
  double motion = 0.0;
  std::string excitation = "random";
  bool horizontal = false;
  bool plain_patch = false;
  std::uint64_t seed = 1;
  bool force = false;
  // Which of the scene-dependent options the user gave.
  bool width_given = false, height_given = false, frames_given = false, noise_given = false,
       motion_given = false;
};

// What the writer needs of either scene, and what the summary reports.
struct SceneOutput {
  std::function<void(std::int32_t, std::uint16_t*)> frame;
  const std::vector<float>* excitation = nullptr;
  std::vector<std::string> lines;
};

std::string ReferencePath(const std::string& header) {
  const platform::PathParts p = platform::SplitPath(header);
  return p.drive + p.dir + p.fname + "_reference.txt";
}

std::string Bytes(std::uint64_t n) { return std::to_string(n) + " bytes"; }

std::string ShortNumber(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.6g", v);
  return buf;
}

void CheckRange(const char* name, long long v, long long lo, long long hi) {
  if (v < lo || v > hi) {
    throw CommandError(std::string(name) + " must lie in " + std::to_string(lo) + ".." +
                       std::to_string(hi) + ", got " + std::to_string(v));
  }
}

void WriteReference(const std::string& reference, const std::vector<float>& excitation) {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> out(platform::OpenFile(reference, "w"),
                                                      &std::fclose);
  if (!out) throw CommandError("cannot create " + reference);
  for (float v : excitation) std::fprintf(out.get(), "%.9g\n", v);
  if (std::fflush(out.get()) != 0 || std::ferror(out.get())) {
    throw CommandError("cannot write " + reference);
  }
}

void RunSynth(SynthOptions o) {
  const bool beam = o.scene == "beam";
  if (!beam && o.scene != "plate") {
    throw CommandError("--scene must be plate or beam, got " + o.scene);
  }
  if (!beam && (o.motion_given || o.horizontal || o.plain_patch)) {
    throw CommandError("--motion, --horizontal and --plain-patch need --scene beam");
  }
  // The beam's default view is long along the beam, whichever way it lies.
  const bool lying = beam && o.horizontal;
  if (!o.width_given) o.width = lying ? 320 : beam ? 128 : 256;
  if (!o.height_given) o.height = lying ? 128 : beam ? 320 : 192;
  if (!o.frames_given) o.frames = beam ? 2000 : 1000;
  if (!o.noise_given) o.noise = beam ? 0.01 : 6.0;
  if (!o.motion_given) o.motion = 0.25;
  CheckRange("--width", o.width, 1, 65535);
  CheckRange("--height", o.height, 1, 65535);
  CheckRange("--frames", o.frames, 1, INT32_MAX);
  CheckRange("--frames-per-file", o.frames_per_file, 1, UINT32_MAX);
  CheckRange("--ring-slots", o.ring_slots, 0, UINT32_MAX);
  CheckRange("--first-slot", o.first_slot, 0, UINT32_MAX);
  if (!(o.fps > 0.0) || !std::isfinite(o.fps)) {
    throw CommandError("--fps must be positive, got " + ShortNumber(o.fps));
  }
  if (o.bits != 12 && o.bits != 8) {
    throw CommandError("--format (--bits) must be 12 or 8, got " + std::to_string(o.bits));
  }
  const double max_noise = beam ? 1.0 : 4095.0;
  if (!(o.noise >= 0.0 && o.noise <= max_noise)) {
    throw CommandError("--noise must lie in 0.." + ShortNumber(max_noise) + " for the " + o.scene +
                       ", got " + ShortNumber(o.noise));
  }
  if (!(o.motion > 0.0 && o.motion <= 50.0)) {
    throw CommandError("--motion must lie in (0, 50] px, got " + ShortNumber(o.motion));
  }
  if (o.excitation != "random" && o.excitation != "chirp") {
    throw CommandError("--excitation must be random or chirp, got " + o.excitation);
  }
  if (beam) {
    const long long across = o.horizontal ? o.height : o.width;
    const long long along = o.horizontal ? o.width : o.height;
    if (across < 16 || along < 32) {
      throw CommandError("the beam needs an image of at least 16 px across it and 32 px along it");
    }
  }
  if (!o.single_file && (o.ring_slots != 0 || o.first_slot != 0)) {
    throw CommandError("--ring-slots and --first-slot need --single-file");
  }
  // A capture is often the only copy of a measurement: replace one only when asked.
  std::uint64_t existing = 0;
  std::error_code ec;
  if (!o.force &&
      (platform::FileSize(o.header, &existing) ||
       std::filesystem::exists(platform::PathFromUtf8(frfmap::DataFolder(o.header)), ec))) {
    throw CommandError(o.header + " or its data folder exists already; --force replaces it");
  }

  const frfmap::Excitation excitation =
      o.excitation == "chirp" ? frfmap::Excitation::kChirp : frfmap::Excitation::kRandom;
  std::unique_ptr<frfmap::PlateScene> plate;
  std::unique_ptr<frfmap::BeamScene> beam_scene;
  SceneOutput scene;
  if (beam) {
    frfmap::BeamSetup setup;
    setup.width = static_cast<std::uint16_t>(o.width);
    setup.height = static_cast<std::uint16_t>(o.height);
    setup.fps = o.fps;
    setup.frames = static_cast<std::int32_t>(o.frames);
    setup.horizontal = o.horizontal;
    setup.motion = o.motion;
    setup.noise = o.noise;
    setup.excitation = excitation;
    setup.plain_patch = o.plain_patch;
    setup.seed = o.seed;
    beam_scene = std::make_unique<frfmap::BeamScene>(setup);
    const frfmap::BeamScene& b = *beam_scene;
    scene.frame = [&b](std::int32_t f, std::uint16_t* s) { b.Frame(f, s); };
    scene.excitation = &b.excitation();
    for (std::size_t k = 0; k < b.setup().modes.size(); ++k) {
      const frfmap::BeamMode& m = b.setup().modes[k];
      scene.lines.push_back("mode " + std::to_string(k + 1) + ": " + ShortNumber(m.frequency_hz) +
                            " Hz, damping " + ShortNumber(m.damping) + ", tip RMS " +
                            ShortNumber(m.tip_rms_px) + " px");
    }
    auto rect = [](const frfmap::BeamRect& r) {
      return "x " + std::to_string(r.x0) + ".." + std::to_string(r.x1 - 1) + ", y " +
             std::to_string(r.y0) + ".." + std::to_string(r.y1 - 1);
    };
    scene.lines.push_back("beam: " + rect(b.beam()) +
                          (o.horizontal ? ", clamped at the left, moving in y"
                                        : ", clamped at the bottom, moving in x"));
    if (o.plain_patch) scene.lines.push_back("plain patch: " + rect(b.plain_patch()));
  } else {
    frfmap::SceneSetup setup;
    setup.width = static_cast<std::uint16_t>(o.width);
    setup.height = static_cast<std::uint16_t>(o.height);
    setup.fps = o.fps;
    setup.frames = static_cast<std::int32_t>(o.frames);
    setup.noise = o.noise;
    setup.excitation = excitation;
    setup.seed = o.seed;
    plate = std::make_unique<frfmap::PlateScene>(setup);
    const frfmap::PlateScene& p = *plate;
    scene.frame = [&p](std::int32_t f, std::uint16_t* s) { p.Frame(f, s); };
    scene.excitation = &p.excitation();
    for (std::size_t k = 0; k < p.modes().size(); ++k) {
      const frfmap::PlateMode& m = p.modes()[k];
      scene.lines.push_back("mode " + std::to_string(k + 1) + ": " + ShortNumber(m.frequency_hz) +
                            " Hz, damping " + ShortNumber(m.damping) + ", shape (" +
                            std::to_string(m.m) + "," + std::to_string(m.n) + ")");
    }
  }

  std::string ext = platform::PathFromUtf8(o.header).extension().string();
  for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (ext == ".cih") {
    // The scene as a high-speed camera would have recorded it.
    if (o.single_file) throw CommandError("--single-file makes no sense for an MRAW recording");
    camera::MrawSetup mraw;
    mraw.width = static_cast<unsigned>(o.width);
    mraw.height = static_cast<unsigned>(o.height);
    mraw.frames = o.frames;
    mraw.fps = o.fps;
    mraw.bits = o.bits;
    std::string error;
    const int down = 12 - o.bits;
    const bool ok = camera::WriteMraw(
        o.header, mraw,
        [&](std::int64_t f, std::uint16_t* codes) {
          scene.frame(static_cast<std::int32_t>(f), codes);
          for (std::size_t i = 0; i < static_cast<std::size_t>(o.width * o.height); ++i) {
            codes[i] = static_cast<std::uint16_t>(codes[i] >> down);
          }
        },
        &error);
    if (!ok) throw CommandError(error);
    WriteReference(ReferencePath(o.header), *scene.excitation);
    std::printf("wrote %s and its MRAW: %lld x %lld pixels, %lld frames at %s fps, %d-bit\n",
                o.header.c_str(), o.width, o.height, o.frames, ShortNumber(o.fps).c_str(), o.bits);
    for (const std::string& line : scene.lines) std::printf("%s\n", line.c_str());
    std::printf("reference: %s (%zu samples)\n", ReferencePath(o.header).c_str(),
                scene.excitation->size());
    return;
  }

  frfmap::CaptureDesc desc;
  desc.width = static_cast<std::uint16_t>(o.width);
  desc.height = static_cast<std::uint16_t>(o.height);
  desc.frames = static_cast<std::int32_t>(o.frames);
  desc.fps = o.fps;
  desc.pixel_format = o.bits == 12 ? format::kPixelFormat12BitPacked : format::kPixelFormat8Bit;
  desc.frames_per_file = static_cast<std::uint32_t>(o.frames_per_file);
  desc.single_file = o.single_file;
  desc.ring_slots = static_cast<std::uint32_t>(o.ring_slots);
  desc.first_slot = static_cast<std::uint32_t>(o.first_slot);

  std::string error;
  const bool ok = frfmap::WriteCapture(o.header, desc, scene.frame, &error);
  if (!ok) throw CommandError(error);

  const std::string reference = ReferencePath(o.header);
  WriteReference(reference, *scene.excitation);

  std::uint64_t data_bytes = 0;
  unsigned files = 0;
  if (desc.single_file) {
    platform::FileSize(DataFilePath(o.header, DataFile::kSingle, 0), &data_bytes);
    files = 1;
  } else {
    files = static_cast<unsigned>((o.frames + o.frames_per_file - 1) / o.frames_per_file);
    for (unsigned d = 1; d <= files; ++d) {
      std::uint64_t size = 0;
      platform::FileSize(DataFilePath(o.header, DataFile::kDivision, d), &size);
      data_bytes += size;
    }
  }
  std::printf("wrote %s: %lld x %lld pixels, %lld frames at %s fps, %s\n", o.header.c_str(),
              o.width, o.height, o.frames, ShortNumber(o.fps).c_str(),
              o.bits == 12 ? "12-bit packed" : "8-bit");
  const std::string layout =
      desc.single_file
          ? "single file"
          : std::to_string(files) + (files == 1 ? " division file" : " division files");
  std::printf("data: %s (%s, %s)\n", frfmap::DataFolder(o.header).c_str(), layout.c_str(),
              Bytes(data_bytes).c_str());
  for (const std::string& line : scene.lines) std::printf("%s\n", line.c_str());
  std::printf("reference: %s (%zu samples)\n", reference.c_str(), scene.excitation->size());
}

void PrintFile(const std::string& path, std::uint64_t expected) {
  std::uint64_t size = 0;
  if (!platform::FileSize(path, &size)) {
    std::printf("  %s  missing\n", path.c_str());
    return;
  }
  const char* note = size < expected   ? "  (short: expected "
                     : size > expected ? "  (expected "
                                       : "";
  if (*note != '\0') {
    std::printf("  %s  %s%s%s)\n", path.c_str(), Bytes(size).c_str(), note,
                Bytes(expected).c_str());
  } else {
    std::printf("  %s  %s\n", path.c_str(), Bytes(size).c_str());
  }
}

std::string FormatName(std::uint32_t pixel_format) {
  if (pixel_format == format::kPixelFormat12BitPacked) return "12-bit packed";
  if (pixel_format == format::kPixelFormat16Bit) return "16-bit, read one byte per pixel";
  return "8-bit";
}

void PrintSingleFile(const std::string& path) {
  std::uint64_t size = 0;
  if (!platform::FileSize(path, &size)) {
    std::printf("  %s  missing\n", path.c_str());
    return;
  }
  std::printf("  %s  %s\n", path.c_str(), Bytes(size).c_str());
  std::array<std::uint8_t, format::kCapHeaderSize> head{};
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> in(platform::OpenFile(path, "rb"), &std::fclose);
  if (!in || std::fread(head.data(), 1, head.size(), in.get()) != head.size()) {
    std::printf("    shorter than its %zu-byte file header\n", format::kCapHeaderSize);
    return;
  }
  const std::uint8_t packing = head[format::kCapPackingOffset];
  const std::uint16_t width = format::LoadU16(&head[format::kCapRowWidthOffset]);
  const std::uint16_t rows = format::LoadU16(&head[format::kCapRowCountOffset]);
  const std::uint32_t slots = format::LoadU32(&head[format::kCapSlotCountOffset]);
  const std::uint32_t slot_size = format::LoadU32(&head[format::kCapSlotSizeOffset]);
  const std::uint64_t pixel_bytes =
      static_cast<std::uint64_t>(rows) * format::CapRowBytes(packing, width);
  const std::string code = packing >= 33 && packing < 127
                               ? "'" + std::string(1, static_cast<char>(packing)) + "'"
                               : std::to_string(packing);
  std::printf("    packing code %s, %u rows of %u pixels (%s per frame)\n", code.c_str(), rows,
              width, Bytes(pixel_bytes).c_str());
  std::printf("    ring of %u slots of %s, first slot %u, slot 0 at byte %u, subtracted %u\n",
              slots, Bytes(slot_size).c_str(), format::LoadU32(&head[format::kCapFirstSlotOffset]),
              format::LoadU32(&head[format::kCapSlot0Offset]),
              format::LoadU32(&head[format::kCapSubtractSlotOffset]));
}

void RunInfo(const std::string& path) {
  std::uint64_t size = 0;
  if (!platform::FileSize(path, &size)) {
    throw CommandError("cannot read header " + path + ": no such file");
  }
  if (size < format::kHeaderSize) {
    throw CommandError(path + " is not a capture header: " + Bytes(size) + ", expected " +
                       std::to_string(format::kHeaderSize));
  }
  frfmap::CaptureHeader h;
  if (!h.Load(path)) throw CommandError("cannot read header " + path);
  if (const std::string problem = h.Problem(); !problem.empty()) {
    throw CommandError(path + " is not a capture header: " + problem);
  }

  const std::int32_t frames = h.frame_count();
  const std::uint32_t fpd = h.frames_per_division();
  const std::uint64_t frame_bytes = h.frame_bytes();
  std::printf("header            %s\n", path.c_str());
  std::printf("width             %u\n", h.width());
  std::printf("height            %u\n", h.height());
  std::printf("pixel format      %u (%s)\n", h.pixel_format(),
              FormatName(h.pixel_format()).c_str());
  std::printf("frames            %d\n", frames);
  std::printf("frames per file   %u\n", fpd);
  std::printf("float field       %s (frame rate of synthetic captures)\n",
              ShortNumber(h.float_field()).c_str());
  std::printf("single file       %s\n", h.single_file() ? "yes" : "no");
  std::printf("frame bytes S     %" PRIu64 " (%s bytes per pixel)\n", frame_bytes,
              ShortNumber(h.bytes_per_pixel()).c_str());
  const std::uint32_t bins = frames > 0 ? static_cast<std::uint32_t>(frames) / 2 + 1 : 0;
  std::printf("bins              %u\n", bins);
  // What the header file says after the header: how the capture came about.
  if (size > format::kHeaderSize && size < (1u << 16)) {
    platform::File file;
    std::string note(static_cast<std::size_t>(size - format::kHeaderSize), '\0');
    if (file.Open(path, platform::File::Mode::kRead)) {
      note.resize(file.ReadAt(format::kHeaderSize, note.data(), note.size()));
      while (!note.empty() && (note.front() == '\n' || note.front() == '\r')) note.erase(0, 1);
      std::printf("note              %s", note.c_str());
      if (!note.empty() && note.back() != '\n') std::printf("\n");
    }
  }

  if (h.single_file()) {
    std::printf("data file:\n");
    PrintSingleFile(DataFilePath(path, DataFile::kSingle, 0));
  } else if (fpd == 0) {
    std::printf("data files: none can be addressed with 0 frames per file\n");
  } else if (frames > 0) {
    const auto count =
        static_cast<std::uint32_t>((static_cast<std::uint64_t>(frames) + fpd - 1) / fpd);
    std::printf("data files (%u):\n", count);
    const std::uint32_t shown = std::min(count, frfmap::kMaxFileNumber);
    for (std::uint32_t d = 1; d <= shown; ++d) {
      const std::uint32_t first = (d - 1) * fpd;
      const std::uint32_t records = std::min(fpd, static_cast<std::uint32_t>(frames) - first);
      PrintFile(DataFilePath(path, DataFile::kDivision, d),
                records * (frame_bytes + format::kFrameRecordSize));
    }
    if (count > shown) {
      std::printf("  ... %u more, beyond the %u files that can be read\n", count - shown, shown);
    }
  }

  const frfmap::CubeLayout cube = frfmap::CubeLayout::For(h.pixels(), bins);
  if (bins == 0 || cube.bins_per_file == 0) {
    std::printf("cube files: none (%s)\n", bins == 0 ? "no frames" : "a plane exceeds 2 GiB");
    return;
  }
  const unsigned cubes = cube.FileCount();
  std::printf("cube files (%u, %u bins per file):\n", cubes, cube.bins_per_file);
  const unsigned shown = std::min(cubes, frfmap::kMaxFileNumber);
  for (unsigned c = 1; c <= shown; ++c) {
    const std::uint32_t planes = std::min(cube.bins_per_file, bins - (c - 1) * cube.bins_per_file);
    PrintFile(DataFilePath(path, DataFile::kCube, c),
              static_cast<std::uint64_t>(planes) * cube.plane_bytes);
  }
  if (cubes > shown) {
    std::printf("  ... %u more, beyond the %u files that can be addressed\n", cubes - shown, shown);
  }
}

}  // namespace

void RegisterCaptureCommands(CLI::App& app) {
  auto synth_options = std::make_shared<SynthOptions>();
  CLI::App* synth = app.add_subcommand(
      "synth",
      "Write a synthetic capture: a vibrating plate whose brightness follows its modes, or a "
      "speckled cantilever beam that moves sideways. Writes the header OUT.hdr, its frame data "
      "in the folder OUT/, and the excitation force as OUT_reference.txt (one value per frame), "
      "the reference signal for 'map --reference'. A header named OUT.cih writes the scene as "
      "a high-speed camera's recording instead: OUT.cih and OUT.mraw, for 'frfcam import'.");
  synth
      ->add_option("header", synth_options->header,
                   "Header file to write (OUT.hdr, or OUT.cih for an MRAW recording)")
      ->required();
  synth->add_option("--scene", synth_options->scene, "plate or beam")->capture_default_str();
  CLI::Option* width = synth->add_option("--width", synth_options->width,
                                         "Image width in pixels (1..65535; default: plate 256, "
                                         "beam 128, lying 320)");
  CLI::Option* height = synth->add_option("--height", synth_options->height,
                                          "Image height in pixels (1..65535; default: plate 192, "
                                          "beam 320)");
  CLI::Option* frames = synth->add_option("--frames", synth_options->frames,
                                          "Number of frames (default: plate 1000, beam 2000)");
  synth->add_option("--fps", synth_options->fps, "Frame rate in Hz")->capture_default_str();
  synth->add_option("--format,--bits", synth_options->bits, "Bits per pixel: 12 (packed) or 8")
      ->capture_default_str();
  synth->add_option("--frames-per-file", synth_options->frames_per_file, "Frames per division file")
      ->capture_default_str();
  synth->add_flag("--single-file", synth_options->single_file,
                  "Write one ring-buffer .cap file instead of division files");
  synth
      ->add_option("--ring-slots", synth_options->ring_slots,
                   "With --single-file: slots in the ring (0: one per frame)")
      ->capture_default_str();
  synth
      ->add_option("--first-slot", synth_options->first_slot,
                   "With --single-file: slot of the first frame, so the ring wraps")
      ->capture_default_str();
  CLI::Option* noise = synth->add_option(
      "--noise", synth_options->noise,
      "Camera noise. Plate: Gaussian, its standard deviation in counts (0..4095, default 6). "
      "Beam: shot noise, its standard deviation at mid-grey (2048) as a fraction of mid-grey, "
      "growing with the square root of the brightness (0..1, default 0.01)");
  CLI::Option* motion = synth->add_option(
      "--motion", synth_options->motion,
      "Beam: RMS displacement of the tip in the first mode, px (the other modes keep their "
      "ratio to it; default 0.25)");
  synth
      ->add_option("--excitation", synth_options->excitation,
                   "Force: random (periodic random) or chirp (one periodic sweep from a few Hz to "
                   "0.45 of the frame rate)")
      ->capture_default_str();
  synth->add_flag("--horizontal", synth_options->horizontal,
                  "Beam: lying along x, clamped at the left and moving in y (default: upright, "
                  "clamped at the bottom and moving in x)");
  synth->add_flag("--plain-patch", synth_options->plain_patch,
                  "Beam: no speckle from 25 % to 40 % of its length from the clamp");
  synth->add_option("--seed", synth_options->seed, "Seed of the texture, force and noise")
      ->capture_default_str();
  synth->add_flag("--force", synth_options->force, "Replace an existing capture of that name");
  synth->callback([=] {
    SynthOptions o = *synth_options;
    o.width_given = width->count() > 0;
    o.height_given = height->count() > 0;
    o.frames_given = frames->count() > 0;
    o.noise_given = noise->count() > 0;
    o.motion_given = motion->count() > 0;
    RunSynth(o);
  });

  auto info_path = std::make_shared<std::string>();
  CLI::App* info = app.add_subcommand(
      "info", "Describe a capture: header fields, derived sizes and the data and cube files");
  info->add_option("header", *info_path, "Capture header file")->required();
  info->callback([info_path] { RunInfo(*info_path); });
}

}  // namespace frfcam::cli
