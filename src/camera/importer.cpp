#include "camera/importer.h"

#include <tbb/task_group.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <vector>

#include "formats/output_file.h"
#include "frfmap/capture_format.h"
#include "frfmap/capture_header.h"
#include "frfmap/capture_writer.h"
#include "frfmap/naming.h"
#include "platform/platform.h"

namespace frfcam::camera {

namespace fs = std::filesystem;

namespace {

bool Fail(std::string* error, const std::string& message) {
  if (error != nullptr) *error = message;
  return false;
}

std::string Lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string Extension(const std::string& path) {
  return Lower(platform::PathFromUtf8(path).extension().string());
}

bool IsFolder(const std::string& path) {
  std::error_code ec;
  return fs::is_directory(platform::PathFromUtf8(path), ec);
}

// The path without trailing separators, so "frames/" and "frames" are one.
std::string Trimmed(std::string path) {
  while (path.size() > 1 && (path.back() == '/' || path.back() == '\\')) path.pop_back();
  return path;
}

// What identifies a source's content cheaply: a file's size and time; a
// folder's count of files, their total size and the newest time.
bool Stamp(const std::string& source, std::string* stamp) {
  std::error_code ec;
  const fs::path p = platform::PathFromUtf8(source);
  if (fs::is_regular_file(p, ec)) {
    // The file and those of its name beside it: a header's data file (an
    // MRAW beside its CIH) changes the recording as much as the header.
    const fs::path folder = p.has_parent_path() ? p.parent_path() : fs::path(".");
    std::vector<std::string> lines;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
      std::error_code e2;
      if (it->path().stem() != p.stem() || !it->is_regular_file(e2)) continue;
      lines.push_back(it->path().filename().string() + " " + std::to_string(it->file_size(e2)) +
                      " " + std::to_string(it->last_write_time(e2).time_since_epoch().count()) +
                      "\n");
    }
    if (ec || lines.empty()) return false;
    std::sort(lines.begin(), lines.end());  // the listing's order is the system's
    *stamp = "file\n";
    for (const std::string& line : lines) *stamp += line;
    return true;
  }
  if (!fs::is_directory(p, ec)) return false;
  std::uintmax_t count = 0, total = 0;
  fs::file_time_type newest = fs::file_time_type::min();
  for (fs::directory_iterator it(p, ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code e2;
    if (!it->is_regular_file(e2)) continue;
    ++count;
    total += it->file_size(e2);
    newest = std::max(newest, it->last_write_time(e2));
  }
  if (ec) return false;
  *stamp = "folder " + std::to_string(count) + " " + std::to_string(total) + " " +
           std::to_string(newest.time_since_epoch().count()) + "\n";
  return true;
}

std::string ReadSmallFile(const std::string& path) {
  platform::File f;
  std::uint64_t size = 0;
  if (!f.Open(path, platform::File::Mode::kRead) || !f.Size(&size) || size > (1u << 20)) return {};
  std::string text(static_cast<std::size_t>(size), '\0');
  text.resize(f.ReadAt(0, text.data(), text.size()));
  return text;
}

}  // namespace

bool IsSource(const std::string& path) {
  if (IsFolder(path)) return true;
  if (Extension(path) == ".hdr") return false;
  // A capture header of another name still has its data folder beside it.
  const std::string data = frfmap::DataFolder(path);
  return data == path || !IsFolder(data);
}

std::unique_ptr<VideoSource> OpenSource(const std::string& path, std::string* error) {
  if (IsFolder(path)) {
    bool tiff = false, png = false;
    std::error_code ec;
    for (fs::directory_iterator it(platform::PathFromUtf8(path), ec), end; !ec && it != end;
         it.increment(ec)) {
      const std::string ext = Lower(it->path().extension().string());
      tiff = tiff || ext == ".tif" || ext == ".tiff";
      png = png || ext == ".png";
    }
    if (tiff && png) {
      Fail(error, path + ": holds both TIFF and PNG images; give a folder of one kind");
      return nullptr;
    }
    if (tiff) return OpenTiff(path, error);
    if (png) return OpenPngSequence(path, error);
    Fail(error, path + ": a folder without numbered TIFF or PNG images");
    return nullptr;
  }
  const std::string ext = Extension(path);
  if (ext == ".cih" || ext == ".cihx" || ext == ".mraw") return OpenMraw(path, error);
  if (ext == ".cine") return OpenCine(path, error);
  if (ext == ".tif" || ext == ".tiff") return OpenTiff(path, error);
  std::uint64_t size = 0;
  if (!platform::FileSize(path, &size)) {
    Fail(error, path + ": no such file");
    return nullptr;
  }
  return OpenFfmpeg(path, error);
}

bool Import(VideoSource& source, const std::string& sourceName, const std::string& header,
            const ImportOptions& options, ImportResult* result, std::string* error) {
  const SourceInfo& info = source.info();
  if (info.width == 0 || info.height == 0 || info.frames <= 0) {
    return Fail(error, sourceName + ": no image (" + std::to_string(info.width) + "x" +
                           std::to_string(info.height) + ", " + std::to_string(info.frames) +
                           " frames)");
  }
  if (info.bits < 1 || info.bits > 16) {
    return Fail(error, sourceName + ": samples of " + std::to_string(info.bits) +
                           " bits are not supported");
  }
  const std::int64_t first = options.firstFrame;
  const std::int64_t last = options.lastFrame < 0 ? info.frames - 1 : options.lastFrame;
  if (first < 0 || first > last || last >= info.frames) {
    return Fail(error, sourceName + ": frames " + std::to_string(first) + ":" +
                           std::to_string(last) + " are not within its " +
                           std::to_string(info.frames) +
                           " frames (0:" + std::to_string(info.frames - 1) + ")");
  }
  const std::int64_t count = last - first + 1;
  if (count > std::numeric_limits<std::int32_t>::max()) {
    return Fail(error, sourceName + ": more frames than a capture holds; give --frames");
  }
  unsigned x0 = options.roiX, y0 = options.roiY, w = options.roiWidth, h = options.roiHeight;
  if (w == 0) {
    x0 = y0 = 0;
    w = info.width;
    h = info.height;
  }
  if (h == 0 || std::uint64_t{x0} + w > info.width || std::uint64_t{y0} + h > info.height) {
    return Fail(error, sourceName + ": the region " + std::to_string(x0) + "," +
                           std::to_string(y0) + "," + std::to_string(w) + "," + std::to_string(h) +
                           " is not within its " + std::to_string(info.width) + "x" +
                           std::to_string(info.height) + " frame");
  }
  if (w > 65535 || h > 65535) {
    return Fail(error, sourceName + ": a capture is at most 65535 pixels a side; give --roi");
  }
  const double fps = options.fps > 0.0 ? options.fps : info.fps;
  if (!(fps > 0.0) || !std::isfinite(fps)) {
    return Fail(error, sourceName + ": the source gives no frame rate; give --fps");
  }
  if (options.bits != 0 && options.bits != 8 && options.bits != 12) {
    return Fail(error, "the capture's bits must be 8 or 12");
  }
  const int bits = options.bits != 0 ? options.bits : (info.bits <= 8 ? 8 : 12);
  // Samples are on the 12-bit scale (the writer keeps the top 8 of an 8-bit
  // capture), so the shift is the same for both depths.
  const int shift = 12 - info.bits;

  frfmap::CaptureDesc setup;
  setup.width = static_cast<std::uint16_t>(w);
  setup.height = static_cast<std::uint16_t>(h);
  setup.frames = static_cast<std::int32_t>(count);
  setup.fps = fps;
  setup.pixel_format =
      bits == 8 ? frfmap::format::kPixelFormat8Bit : frfmap::format::kPixelFormat12BitPacked;
  // Division files below 2 GiB, at most 127 of them.
  const std::uint64_t recordBytes = frfmap::DivisionFrameBytes(setup) + 16;
  const std::uint64_t perFile = std::max<std::uint64_t>(1, ((1ull << 31) - 1) / recordBytes);
  std::uint64_t fpd = std::min<std::uint64_t>(500, perFile);
  fpd = std::max<std::uint64_t>(fpd, (static_cast<std::uint64_t>(count) + 126) / 127);
  setup.frames_per_file = static_cast<std::uint32_t>(std::min<std::uint64_t>(fpd, perFile));

  char line[512];
  std::snprintf(line, sizeof line,
                "\nfrfcam import\nsource: %s\nformat: %s, %ux%u, %lld frames, %d-bit, %s\n"
                "taken: frames %lld:%lld, region %u,%u,%u,%u, %.9g fps%s\n"
                "samples: %d-bit capture, source code %s %d%s\n",
                sourceName.c_str(), info.format.c_str(), info.width, info.height,
                static_cast<long long>(info.frames), info.bits, info.lossy ? "lossy" : "lossless",
                static_cast<long long>(first), static_cast<long long>(last), x0, y0, w, h, fps,
                options.fps > 0.0 ? " (given)" : "", bits, shift >= 0 ? "<<" : ">>",
                std::abs(shift), bits == 8 ? ", top 8 of 12 bits kept" : "");
  setup.note = line;
  if (!info.notes.empty()) setup.note += "reader: " + info.notes + "\n";
  if (bits == 12 && (std::uint64_t{w} * h) % 2 == 1) {
    setup.note += "packing: an odd pixel count keeps the top 8 bits of each frame's last pixel\n";
  }

  // Whole rows of a file that stores the capture's form go straight into
  // it; anything else is read as codes and converted.
  const bool packed = bits == 12;
  const bool direct =
      x0 == 0 && w == info.width && source.HasCaptureBytes(bits) &&
      (!packed || (std::uint64_t{y0} * w % 2 == 0 && std::uint64_t{w} * h % 2 == 0));
  const std::size_t pixels = std::size_t{info.width} * info.height;
  const std::size_t frameBytes = static_cast<std::size_t>(frfmap::DivisionFrameBytes(setup));

  // The next frame is read and converted on the worker pool while this
  // thread writes the current one: two buffers, one read in flight.
  std::vector<std::uint8_t> stored[2] = {std::vector<std::uint8_t>(frameBytes),
                                         std::vector<std::uint8_t>(frameBytes)};
  std::vector<std::uint16_t> codes(direct ? 0 : pixels);
  std::vector<std::uint16_t> region(direct || w == info.width ? 0 : std::size_t{w} * h);
  bool readOk[2] = {false, false};
  std::string readError[2];
  const auto read = [&](int slot, std::int64_t index) {
    std::uint8_t* out = stored[slot].data();
    if (direct) return source.ReadCaptureBytes(index, bits, y0, h, out, &readError[slot]);
    if (!source.ReadFrame(index, codes.data(), &readError[slot])) return false;
    if (region.empty()) {
      // Whole rows are contiguous in the frame.
      frfmap::CodesToPixelBytes(codes.data() + std::size_t{y0} * w, std::size_t{w} * h, shift,
                                packed, out);
    } else {
      for (unsigned y = 0; y < h; ++y) {
        std::memcpy(region.data() + std::size_t{y} * w,
                    codes.data() + std::size_t{y0 + y} * info.width + x0,
                    w * sizeof(std::uint16_t));
      }
      frfmap::CodesToPixelBytes(region.data(), region.size(), shift, packed, out);
    }
    return true;
  };
  tbb::task_group reading;
  struct WaitOnExit {
    tbb::task_group& group;
    ~WaitOnExit() { group.wait(); }
  } waitOnExit{reading};
  const auto startRead = [&](int slot, std::int64_t index) {
    reading.run([&, slot, index] { readOk[slot] = read(slot, index); });
  };
  startRead(0, first);
  int reported = -1;
  const auto fill = [&](std::int32_t f, std::uint8_t*, std::string* why) -> const std::uint8_t* {
    reading.wait();
    const int slot = f % 2;
    if (!readOk[slot]) {
      *why = readError[slot];
      return nullptr;
    }
    if (options.cancel != nullptr && options.cancel->load(std::memory_order_relaxed)) {
      *why = "cancelled";
      return nullptr;
    }
    if (f + 1 < count) startRead(1 - slot, first + f + 1);
    const int percent = static_cast<int>((f + 1) * 100 / count);
    if (options.progress && percent != reported) {
      reported = percent;
      options.progress(percent);
    }
    return stored[slot].data();
  };
  if (!frfmap::WriteCapture(header, setup, frfmap::FrameBytesSource(fill), error)) return false;
  if (result != nullptr) {
    result->source = info;
    result->frames = count;
    result->width = w;
    result->height = h;
    result->bits = bits;
    result->shift = shift;
    result->fps = fps;
    result->note = setup.note;
  }
  return true;
}

bool CaptureOfSource(const std::string& source, const std::string& workDir,
                     const ImportOptions& options, std::string* header, bool* imported,
                     std::string* error) {
  const std::string trimmed = Trimmed(source);
  std::string stamp;
  if (!Stamp(trimmed, &stamp)) return Fail(error, source + ": no such file or folder");
  const std::string name = platform::PathFromUtf8(trimmed).filename().string();
  const std::string dir =
      workDir.empty() ? trimmed + ".frfcam" : Trimmed(workDir) + "/" + name + ".frfcam";
  *header = dir + "/capture.hdr";
  const std::string stampPath = dir + "/source.stamp";
  *imported = false;

  frfmap::CaptureHeader loaded;
  std::uint64_t size = 0;
  if (ReadSmallFile(stampPath) == stamp && platform::FileSize(*header, &size) &&
      size >= frfmap::format::kHeaderSize && loaded.Load(*header) && loaded.frame_count() > 0) {
    return true;
  }
  std::error_code ec;
  fs::create_directories(platform::PathFromUtf8(dir), ec);
  if (ec) return Fail(error, "cannot create " + dir + ": " + ec.message());
  // The old stamp goes first: a capture without one is imported again.
  fs::remove(platform::PathFromUtf8(stampPath), ec);
  std::unique_ptr<VideoSource> reader = OpenSource(trimmed, error);
  if (reader == nullptr) return false;
  if (!Import(*reader, trimmed, *header, options, nullptr, error)) return false;
  std::string why;
  if (!formats::WriteFileWhole(stampPath, stamp, &why)) return Fail(error, stampPath + ": " + why);
  *imported = true;
  return true;
}

}  // namespace frfcam::camera
