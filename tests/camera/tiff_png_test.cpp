// TIFF and PNG readers against files written here by libtiff and libpng in
// each layout they offer: samples must come back exactly, damaged files must
// give one line naming the file.
#include <gtest/gtest.h>
#include <png.h>
#include <zlib.h>
#if defined(FRFCAM_HAVE_LIBTIFF)
#include <tiffio.h>
#endif

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "camera/camera_test_util.h"
#include "support/test_support.h"

namespace frfcam::camera {
namespace {

using test_util::ExpectFrame;
using test_util::ExpectOneLine;

// Sample c of pixel (x, y) of frame f, within `bits` bits.
unsigned Value(unsigned x, unsigned y, unsigned f, unsigned c, int bits) {
  return (x * 37 + y * 101 + f * 1009 + c * 53 + (bits > 8 ? x * y * 7 : 0)) & ((1u << bits) - 1);
}

#if defined(FRFCAM_HAVE_LIBTIFF)
struct TiffLayout {
  const char* name;
  int bits = 8;
  int samples = 1;
  std::uint16_t photometric = PHOTOMETRIC_MINISBLACK;
  std::uint16_t compression = COMPRESSION_NONE;
  bool big_endian = false;
  bool tiled = false;
  bool separate = false;
};

// Writes `frames` pages of w x h pixels, numbered from `first` in Value;
// page `odd_page` is a pixel wider.
void WriteTiff(const std::string& path, const TiffLayout& l, unsigned w, unsigned h,
               unsigned frames, unsigned first = 0, unsigned odd_page = ~0u) {
  TIFF* tif = TIFFOpen(path.c_str(), l.big_endian ? "wb" : "wl");
  ASSERT_NE(tif, nullptr);
  for (unsigned f = 0; f < frames; ++f) {
    const unsigned pw = f == odd_page ? w + 1 : w;
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, pw);
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, h);
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, l.bits);
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, l.samples);
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, l.photometric);
    TIFFSetField(tif, TIFFTAG_COMPRESSION, l.compression);
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG,
                 l.separate ? PLANARCONFIG_SEPARATE : PLANARCONFIG_CONTIG);
    if (l.tiled) {
      TIFFSetField(tif, TIFFTAG_TILEWIDTH, 16);
      TIFFSetField(tif, TIFFTAG_TILELENGTH, 16);
    } else {
      TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, 3);
    }
    const int planes = l.separate ? l.samples : 1, per_plane = l.separate ? 1 : l.samples;
    // The image plane by plane as the file stores it, each row packed
    // from the most significant bit.
    const std::size_t row_bytes = (std::size_t{pw} * per_plane * l.bits + 7) / 8;
    for (int p = 0; p < planes; ++p) {
      std::vector<std::uint8_t> plane(row_bytes * h, 0);
      for (unsigned y = 0; y < h; ++y) {
        std::uint8_t* row = plane.data() + y * row_bytes;
        for (unsigned i = 0; i < pw * per_plane; ++i) {
          const unsigned v = Value(i / per_plane, y, first + f, p + i % per_plane, l.bits);
          if (l.bits == 16) {
            const std::uint16_t word = static_cast<std::uint16_t>(v);
            std::memcpy(row + 2 * i, &word, 2);
          } else {
            for (int b = 0; b < l.bits; ++b) {
              const std::size_t bit = std::size_t{i} * l.bits + b;
              if ((v >> (l.bits - 1 - b)) & 1) row[bit / 8] |= 0x80 >> (bit % 8);
            }
          }
        }
      }
      if (l.tiled) {
        const std::size_t tile_row = TIFFTileRowSize(tif);
        std::vector<std::uint8_t> tile(TIFFTileSize(tif));
        for (unsigned ty = 0; ty < h; ty += 16) {
          for (unsigned tx = 0; tx < pw; tx += 16) {
            std::fill(tile.begin(), tile.end(), 0);
            for (unsigned r = 0; r < 16 && ty + r < h; ++r) {
              const std::size_t from = (tx * per_plane * l.bits) / 8;
              const std::size_t n = std::min(tile_row, row_bytes - from);
              std::memcpy(tile.data() + r * tile_row, plane.data() + (ty + r) * row_bytes + from,
                          n);
            }
            ASSERT_GE(TIFFWriteEncodedTile(tif, TIFFComputeTile(tif, tx, ty, 0, p), tile.data(),
                                           tile.size()),
                      0);
          }
        }
      } else {
        for (unsigned y = 0; y < h; ++y) {
          ASSERT_EQ(TIFFWriteScanline(tif, plane.data() + y * row_bytes, y, p), 1);
        }
      }
    }
    ASSERT_TRUE(TIFFWriteDirectory(tif));
  }
  TIFFClose(tif);
}

#endif

// The grey the readers give for colour: the rounded channel mean.
unsigned Mean(unsigned x, unsigned y, unsigned f, int bits) {
  return (Value(x, y, f, 0, bits) + Value(x, y, f, 1, bits) + Value(x, y, f, 2, bits) + 1) / 3;
}

#if defined(FRFCAM_HAVE_LIBTIFF)
TEST(TiffSource, MultipageFilesOfEveryLayoutReadExactlyInAnyOrder) {
  const TiffLayout layouts[] = {
      {"8-bit strips little-endian"},
      {"16-bit LZW big-endian", 16, 1, PHOTOMETRIC_MINISBLACK, COMPRESSION_LZW, true},
      {"16-bit deflate tiles", 16, 1, PHOTOMETRIC_MINISBLACK, COMPRESSION_ADOBE_DEFLATE, false,
       true},
      {"8-bit packbits tiles big-endian", 8, 1, PHOTOMETRIC_MINISBLACK, COMPRESSION_PACKBITS, true,
       true},
      {"12-bit packed", 12},
      {"grey and alpha", 8, 2, PHOTOMETRIC_MINISBLACK, COMPRESSION_LZW},
      {"white is zero", 8, 1, PHOTOMETRIC_MINISWHITE},
      {"RGB contiguous", 8, 3, PHOTOMETRIC_RGB, COMPRESSION_ADOBE_DEFLATE},
      {"RGB 16-bit planes in tiles big-endian", 16, 3, PHOTOMETRIC_RGB, COMPRESSION_NONE, true,
       true, true},
  };
  test::ScratchDir dir;
  for (const TiffLayout& l : layouts) {
    SCOPED_TRACE(l.name);
    const std::string path = dir.file(std::string(l.name) + ".tif");
    WriteTiff(path, l, 37, 23, 3);
    std::string error;
    std::unique_ptr<VideoSource> source = OpenTiff(path, &error);
    ASSERT_NE(source, nullptr) << error;
    const SourceInfo& info = source->info();
    EXPECT_TRUE(info.format == "TIFF" && info.width == 37 && info.height == 23 &&
                info.frames == 3 && info.bits == l.bits && info.fps == 0 && !info.lossy);
    EXPECT_EQ(info.notes.find("inverted") != std::string::npos,
              l.photometric == PHOTOMETRIC_MINISWHITE)
        << info.notes;
    EXPECT_EQ(info.notes.find("mean") != std::string::npos, l.photometric == PHOTOMETRIC_RGB)
        << info.notes;
    for (unsigned f : {0, 1, 2, 0, 2, 1}) {
      ExpectFrame(*source, f, [&](unsigned x, unsigned y) {
        if (l.photometric == PHOTOMETRIC_RGB) return Mean(x, y, f, l.bits);
        const unsigned v = Value(x, y, f, 0, l.bits);
        return l.photometric == PHOTOMETRIC_MINISWHITE ? (1u << l.bits) - 1 - v : v;
      });
    }
  }
}

#else
TEST(TiffSource, RefusedByABuildWithoutLibtiff) {
  std::string error;
  EXPECT_EQ(OpenTiff("any.tif", &error), nullptr);
  EXPECT_EQ(error, "this build of frfcam reads no TIFF files");
}
#endif

// A PNG of w x h pixels; `bits` and `colour` as libpng takes them, sample c
// of pixel (x, y) from Value with frame number f. 16-bit rows are big-endian.
void WritePng(const std::string& path, unsigned w, unsigned h, int bits, int colour, unsigned f,
              bool interlaced = false) {
  std::FILE* out = std::fopen(path.c_str(), "wb");
  ASSERT_NE(out, nullptr);
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  png_init_io(png, out);
  png_set_IHDR(png, info, w, h, bits, colour, interlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  const int channels = colour == PNG_COLOR_TYPE_PALETTE ? 1 : png_get_channels(png, info);
  png_color palette[256];
  for (int i = 0; i < 256; ++i) {
    palette[i] = {static_cast<png_byte>(i), static_cast<png_byte>(255 - i),
                  static_cast<png_byte>(i * 7)};
  }
  if (colour == PNG_COLOR_TYPE_PALETTE) png_set_PLTE(png, info, palette, 1 << bits);
  png_write_info(png, info);
  std::vector<std::vector<png_byte>> rows(h, std::vector<png_byte>((w * channels * bits + 7) / 8));
  for (unsigned y = 0; y < h; ++y) {
    for (unsigned i = 0; i < w * channels; ++i) {
      const unsigned v = Value(i / channels, y, f, i % channels, bits);
      if (bits == 16) {
        rows[y][2 * i] = static_cast<png_byte>(v >> 8);
        rows[y][2 * i + 1] = static_cast<png_byte>(v);
      } else {
        rows[y][i * bits / 8] |= static_cast<png_byte>(v << (8 - bits - i * bits % 8));
      }
    }
  }
  std::vector<png_bytep> pointers;
  for (auto& r : rows) pointers.push_back(r.data());
  png_write_image(png, pointers.data());
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  std::fclose(out);
}

TEST(PngSequence, EveryColourTypeAndDepthReadsExactly) {
  struct Case {
    const char* name;
    int bits, colour;
    bool interlaced;
    int expect_bits;
  } const cases[] = {
      {"grey 8", 8, PNG_COLOR_TYPE_GRAY, false, 8},
      {"grey 16 interlaced", 16, PNG_COLOR_TYPE_GRAY, true, 16},
      {"grey 4", 4, PNG_COLOR_TYPE_GRAY, false, 4},
      {"grey and alpha 16", 16, PNG_COLOR_TYPE_GRAY_ALPHA, false, 16},
      {"RGB 8", 8, PNG_COLOR_TYPE_RGB, false, 8},
      {"RGBA 16", 16, PNG_COLOR_TYPE_RGB_ALPHA, true, 16},
      {"palette 4", 4, PNG_COLOR_TYPE_PALETTE, false, 8},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    test::ScratchDir dir;
    WritePng(dir.file("f7.png"), 13, 9, c.bits, c.colour, 7, c.interlaced);
    std::string error;
    std::unique_ptr<VideoSource> source = OpenPngSequence(dir.path().string(), &error);
    ASSERT_NE(source, nullptr) << error;
    EXPECT_TRUE(source->info().format == "PNG" && source->info().frames == 1);
    EXPECT_EQ(source->info().bits, c.expect_bits);
    ExpectFrame(*source, 0, [&](unsigned x, unsigned y) {
      if (c.colour == PNG_COLOR_TYPE_PALETTE) {
        const unsigned i = Value(x, y, 7, 0, c.bits);
        return (i + (255 - i) + (i * 7 & 255) + 1) / 3;
      }
      if ((c.colour & PNG_COLOR_MASK_COLOR) == 0) return Value(x, y, 7, 0, c.bits);
      return Mean(x, y, 7, c.bits);
    });
  }
}

// Both readers' folders: numbered naturally whatever the padding, files of
// other names left out, a second sequence or a repeated number refused.
TEST(NumberedFolders, OrderByNumberAndRefuseAmbiguousFolders) {
  const auto write_png = [](const std::string& path, unsigned n) {
    WritePng(path, 5, 3, 16, PNG_COLOR_TYPE_GRAY, n);
  };
  struct Reader {
    const char* ext;
    void (*write)(const std::string&, unsigned);
    std::unique_ptr<VideoSource> (*open)(const std::string&, std::string*);
  };
  std::vector<Reader> readers = {{".PNG", write_png, OpenPngSequence}};
#if defined(FRFCAM_HAVE_LIBTIFF)
  const auto write_tiff = [](const std::string& path, unsigned n) {
    WriteTiff(path, {"", 16}, 5, 3, 1, n);
  };
  readers.push_back({".tif", write_tiff, OpenTiff});
#endif
  const unsigned shuffled[] = {7, 12, 1, 10, 3, 2, 11, 5, 9, 4, 8, 6};
  for (const Reader& r : readers) {
    for (const char* pattern : {"frame%u", "take_%04u"}) {
      test::ScratchDir dir;
      for (unsigned n : shuffled) {
        if (n == 8) continue;  // a gap
        char name[32];
        std::snprintf(name, sizeof name, pattern, n);
        r.write(dir.file(name + std::string(r.ext)), n);
      }
      r.write(dir.file(std::string("background") + r.ext), 99);
      r.write(dir.file(std::string("dark7") + r.ext), 99);
      std::ofstream(dir.file("notes.txt")) << "not an image";
      std::string error;
      std::unique_ptr<VideoSource> source = r.open(dir.path().string(), &error);
      ASSERT_NE(source, nullptr) << r.ext << " " << pattern << ": " << error;
      ASSERT_EQ(source->info().frames, 11);
      EXPECT_NE(source->info().notes.find("1 frame numbers missing"), std::string::npos)
          << source->info().notes;
      std::vector<std::uint16_t> samples(15);
      for (std::int64_t f = 0; f < 11; ++f) {
        ASSERT_TRUE(source->ReadFrame(f, samples.data(), &error)) << error;
        const unsigned n = static_cast<unsigned>(f < 7 ? f + 1 : f + 2);
        EXPECT_EQ(samples[14], Value(4, 2, n, 0, 16)) << r.ext << " " << pattern << " frame " << f;
      }
    }
    test::ScratchDir two;
    for (unsigned n = 1; n <= 3; ++n) {
      for (const char* prefix : {"a", "b"}) {
        r.write(two.file(prefix + std::to_string(n).append(r.ext)), n);
      }
    }
    std::string error;
    EXPECT_EQ(r.open(two.path().string(), &error), nullptr);
    ExpectOneLine(error, {"a<n>", "b<n>"});

    test::ScratchDir repeated;
    r.write(repeated.file(std::string("f1") + r.ext), 1);
    r.write(repeated.file(std::string("f01") + r.ext), 1);
    EXPECT_EQ(r.open(repeated.path().string(), &error), nullptr);
    ExpectOneLine(error, {"f01"});
  }
}

#if defined(FRFCAM_HAVE_LIBTIFF)
TEST(TiffSource, DamagedFilesGiveOneLineNamingTheFile) {
  test::ScratchDir dir;
  const TiffLayout plain{"plain", 16, 1, PHOTOMETRIC_MINISBLACK, COMPRESSION_ADOBE_DEFLATE};
  const std::string whole = dir.file("whole.tif");
  WriteTiff(whole, plain, 40, 30, 3);
  const std::string bytes = test::ReadFile(whole);
  std::string error;

  // Cut in the middle of the pixel data of the pages and of the directories.
  for (std::size_t keep :
       {std::size_t{0}, std::size_t{7}, bytes.size() / 3, bytes.size() / 2, bytes.size() - 5}) {
    const std::string cut = dir.file("cut" + std::to_string(keep) + ".tif");
    test_util::Save(cut, bytes.substr(0, keep));
    std::unique_ptr<VideoSource> source = OpenTiff(cut, &error);
    if (source != nullptr) {
      std::vector<std::uint16_t> samples(40 * 30);
      bool all = true;
      for (std::int64_t f = 0; f < source->info().frames && all; ++f) {
        all = source->ReadFrame(f, samples.data(), &error);
      }
      ASSERT_FALSE(all) << "cut at " << keep;
    }
    ExpectOneLine(error, {cut});
  }

  // A page of another size refuses the file, naming the page.
  WriteTiff(dir.file("odd.tif"), plain, 40, 30, 3, 0, 2);
  EXPECT_EQ(OpenTiff(dir.file("odd.tif"), &error), nullptr);
  ExpectOneLine(error, {"frame 2"});

  // In a folder the odd frame fails when it is read.
  test::ScratchDir folder;
  WriteTiff(folder.file("f1.tif"), plain, 5, 3, 1);
  WriteTiff(folder.file("f2.tif"), plain, 6, 3, 1);
  std::unique_ptr<VideoSource> source = OpenTiff(folder.path().string(), &error);
  ASSERT_NE(source, nullptr) << error;
  std::vector<std::uint16_t> samples(15);
  EXPECT_TRUE(source->ReadFrame(0, samples.data(), &error)) << error;
  EXPECT_FALSE(source->ReadFrame(1, samples.data(), &error));
  ExpectOneLine(error, {"f2.tif"});
}

#endif

TEST(PngSequence, DamagedFilesGiveOneLineNamingTheFile) {
  test::ScratchDir dir;
  WritePng(dir.file("whole.png"), 40, 30, 16, PNG_COLOR_TYPE_GRAY, 1);
  const std::string bytes = test::ReadFile(dir.file("whole.png"));
  std::vector<std::uint16_t> samples(40 * 30);
  std::string error;
  for (std::size_t keep : {std::size_t{7}, std::size_t{40}, bytes.size() / 2, bytes.size() - 4}) {
    test::ScratchDir cut;
    test_util::Save(cut.file("f1.png"), bytes.substr(0, keep));
    std::unique_ptr<VideoSource> source = OpenPngSequence(cut.path().string(), &error);
    if (source != nullptr) {
      ASSERT_FALSE(source->ReadFrame(0, samples.data(), &error)) << "cut at " << keep;
    }
    ExpectOneLine(error, {"f1.png"});
  }

  // Width 0 with a correct checksum, so that the header itself is refused.
  std::string zero = bytes;
  std::memset(&zero[16], 0, 4);
  const uLong crc = crc32(0, reinterpret_cast<const Bytef*>(zero.data() + 12), 17);
  for (int i = 0; i < 4; ++i) zero[29 + i] = static_cast<char>(crc >> (24 - 8 * i));
  test::ScratchDir folder;
  test_util::Save(folder.file("f1.png"), zero);
  EXPECT_EQ(OpenPngSequence(folder.path().string(), &error), nullptr);
  ExpectOneLine(error, {"f1.png"});

  // Frames of another size or kind fail when read, naming the file.
  test::ScratchDir mixed;
  WritePng(mixed.file("f1.png"), 40, 30, 16, PNG_COLOR_TYPE_GRAY, 1);
  WritePng(mixed.file("f2.png"), 41, 30, 16, PNG_COLOR_TYPE_GRAY, 2);
  WritePng(mixed.file("f3.png"), 40, 30, 8, PNG_COLOR_TYPE_GRAY, 3);
  test_util::Save(mixed.file("f4.png"), "not a PNG");
  std::unique_ptr<VideoSource> source = OpenPngSequence(mixed.path().string(), &error);
  ASSERT_NE(source, nullptr) << error;
  EXPECT_TRUE(source->ReadFrame(0, samples.data(), &error)) << error;
  for (int f = 1; f < 4; ++f) {
    EXPECT_FALSE(source->ReadFrame(f, samples.data(), &error));
    ExpectOneLine(error, {"f" + std::to_string(f + 1).append(".png")});
  }
  EXPECT_EQ(OpenPngSequence(dir.file("whole.png"), &error), nullptr) << "a file, not a folder";
}

}  // namespace
}  // namespace frfcam::camera
