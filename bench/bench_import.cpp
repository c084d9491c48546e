// Importing recordings: an 8-bit and a 12-bit MRAW of 1024 x 1024 x 2000 and
// a 16-bit multipage TIFF of 512 x 512 x 2000, against the floor of reading
// the source and writing the capture's bytes (`cat SOURCE > /dev/null` and
// `dd` of as many bytes), timed alternately in the same run after a warm-up
// of each. Memory: the process's peak resident size, which stays at a few
// frames however long the recording.
//
//   bench_import [frames] [side] [8|12|tiff]
//     (default 2000, 1024, all three; the TIFF is half the side)
#include <sys/resource.h>
#include <tiffio.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench_support.h"
#include "camera/importer.h"
#include "camera/mraw_writer.h"

namespace frfcam::bench {
namespace {

constexpr int kRuns = 5;

std::uint16_t Code(std::int64_t f, std::size_t i, int bits) {
  const auto v = static_cast<std::uint32_t>(f * 7919 + i * 2654435761u);
  return static_cast<std::uint16_t>((v ^ (v >> 15)) & ((1u << bits) - 1));
}

bool WriteTiffStack(const std::string& path, unsigned side, std::int64_t frames) {
  TIFF* t = TIFFOpen(path.c_str(), "w8");
  if (t == nullptr) return false;
  std::vector<std::uint16_t> row(side);
  for (std::int64_t f = 0; f < frames; ++f) {
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, side);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, side);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 16);
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, 64);
    TIFFSetField(t, TIFFTAG_SUBFILETYPE, FILETYPE_PAGE);
    for (unsigned y = 0; y < side; ++y) {
      for (unsigned x = 0; x < side; ++x) row[x] = Code(f, std::size_t{y} * side + x, 16);
      if (TIFFWriteScanline(t, row.data(), y, 0) < 0) return false;
    }
    if (!TIFFWriteDirectory(t)) return false;
  }
  TIFFClose(t);
  return true;
}

std::uint64_t CaptureBytes(const std::string& header) {
  std::uint64_t total = 0, size = 0;
  const std::string data = header.substr(0, header.size() - 4);
  for (int d = 1; d < 128; ++d) {
    char name[32];
    std::snprintf(name, sizeof name, "_%04d.div", d);
    const std::string stem = data.substr(data.find_last_of('/') + 1);
    if (!platform::FileSize(data + "/" + stem + name, &size)) break;
    total += size;
  }
  return total;
}

long PeakKiB() {
  struct rusage u;
  getrusage(RUSAGE_SELF, &u);
  return u.ru_maxrss;
}

void Run(const char* label, const std::string& dir, const std::string& source,
         const std::string& dataFile) {
  const std::string header = dir + "/capture.hdr";
  std::string error;
  const auto import = [&] {
    std::unique_ptr<camera::VideoSource> s = camera::OpenSource(source, &error);
    camera::ImportOptions o;
    o.fps = 2000.0;
    if (s == nullptr || !camera::Import(*s, source, header, o, nullptr, &error)) {
      std::fprintf(stderr, "import failed: %s\n", error.c_str());
      std::exit(1);
    }
  };
  import();  // warm-up: the page cache holds the source, the capture's files exist
  const std::uint64_t bytes = CaptureBytes(header);
  const std::string floorCmd = "cat '" + dataFile + "' > /dev/null && dd if=/dev/zero of='" + dir +
                               "/floor.bin' bs=1M count=" + std::to_string(bytes >> 20) +
                               " status=none && rm -f '" + dir + "/floor.bin'";
  const auto floor = [&] {
    if (std::system(floorCmd.c_str()) != 0) std::exit(1);
  };
  floor();
  std::vector<double> f, i;
  for (int run = 0; run < kRuns; ++run) {
    f.push_back(Seconds(floor));
    i.push_back(Seconds(import));
  }
  std::printf(
      "%-22s floor (cat + dd) %6.2f / %6.2f s   import %6.2f / %6.2f s   ratio %.2f (median), "
      "%.2f (min)   capture %.0f MB, peak RSS %ld MiB\n",
      label, *std::min_element(f.begin(), f.end()), Median(f),
      *std::min_element(i.begin(), i.end()), Median(i), Median(i) / Median(f),
      *std::min_element(i.begin(), i.end()) / *std::min_element(f.begin(), f.end()), bytes / 1e6,
      PeakKiB() / 1024);
  std::fflush(stdout);
}

}  // namespace
}  // namespace frfcam::bench

int main(int argc, char** argv) {
  using namespace frfcam;
  using namespace frfcam::bench;
  const std::int64_t frames = argc > 1 ? std::atoll(argv[1]) : 2000;
  const unsigned side = argc > 2 ? static_cast<unsigned>(std::atoi(argv[2])) : 1024;
  const std::string only = argc > 3 ? argv[3] : "";
  const auto runs = [&](const std::string& which) { return only.empty() || only == which; };
  std::printf("import, %lld frames; seconds as min / median of %d alternating runs\n",
              static_cast<long long>(frames), kRuns);
  for (int bits : {8, 12}) {
    if (!runs(std::to_string(bits))) continue;
    const std::string dir = BenchDir("import");
    const std::string cih = dir + "/rec.cih";
    camera::MrawSetup setup;
    setup.width = setup.height = side;
    setup.frames = frames;
    setup.fps = 2000.0;
    setup.bits = bits;
    std::string error;
    if (!camera::WriteMraw(
            cih, setup,
            [&](std::int64_t f, std::uint16_t* c) {
              for (std::size_t i = 0; i < std::size_t{side} * side; ++i) c[i] = Code(f, i, bits);
            },
            &error)) {
      std::fprintf(stderr, "%s\n", error.c_str());
      return 1;
    }
    const std::string label = std::to_string(bits) + "-bit MRAW " + std::to_string(side) + "^2";
    Run(label.c_str(), dir, cih, dir + "/rec.mraw");
    RemoveDir(dir);
  }
  if (runs("tiff")) {
    const std::string dir = BenchDir("import");
    const std::string tif = dir + "/stack.tif";
    if (!WriteTiffStack(tif, side / 2, frames)) {
      std::fprintf(stderr, "cannot write %s\n", tif.c_str());
      return 1;
    }
    const std::string label = "16-bit TIFF " + std::to_string(side / 2) + "^2";
    Run(label.c_str(), dir, tif, tif);
    RemoveDir(dir);
  }
  return 0;
}
