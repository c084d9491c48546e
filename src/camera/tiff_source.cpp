// TIFF recordings through libtiff: a multipage file, every directory a
// frame, or a folder of numbered single-page files.
#include <memory>
#include <string>

#include "camera/video_source.h"

#if !defined(FRFCAM_HAVE_LIBTIFF)

namespace frfcam::camera {

std::unique_ptr<VideoSource> OpenTiff(const std::string&, std::string* error) {
  *error = "this build of frfcam reads no TIFF files";
  return nullptr;
}

}  // namespace frfcam::camera

#else

#include <tiffio.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

#include "camera/numbered_files.h"
#include "platform/platform.h"

namespace frfcam::camera {
namespace {

// ---- libtiff's messages ----------------------------------------------------
// libtiff reports through handlers; the default ones print to stderr. Ours
// keep the first message of the call in progress on this thread, which
// becomes the reader's one-line error.

thread_local std::string* t_sink = nullptr;
TIFFErrorHandler g_previous_error = nullptr;
TIFFErrorHandler g_previous_warning = nullptr;

void Record(std::string* sink, const char* module, const char* fmt, va_list ap) {
  if (sink == nullptr || !sink->empty()) return;
  char text[512];
  std::vsnprintf(text, sizeof text, fmt, ap);
  for (char* c = text; *c != '\0'; ++c) {
    if (*c == '\n' || *c == '\r') *c = ' ';
  }
  *sink = (module != nullptr && *module != '\0') ? std::string(module) + ": " + text : text;
}

// The process-wide handlers see messages that come without a TIFF handle
// (and, before libtiff 4.5, all of them). Outside our calls they pass the
// message on to whatever handler the process had, so other users of libtiff
// in the process are not silenced.
void OnError(const char* module, const char* fmt, va_list ap) {
  if (t_sink != nullptr) {
    Record(t_sink, module, fmt, ap);
  } else if (g_previous_error != nullptr) {
    g_previous_error(module, fmt, ap);
  }
}
void OnWarning(const char* module, const char* fmt, va_list ap) {
  if (t_sink == nullptr && g_previous_warning != nullptr) g_previous_warning(module, fmt, ap);
}

void InstallHandlers() {
  static std::once_flag once;
  std::call_once(once, [] {
    g_previous_error = TIFFSetErrorHandler(OnError);
    g_previous_warning = TIFFSetWarningHandler(OnWarning);
  });
}

// Routes this thread's libtiff messages into *sink for the object's life.
class Capture {
 public:
  explicit Capture(std::string* sink) : saved_(t_sink) {
    sink->clear();
    t_sink = sink;
  }
  ~Capture() { t_sink = saved_; }
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

 private:
  std::string* saved_;
};

#if TIFFLIB_VERSION >= 20221213
// Per-handle handlers (libtiff 4.5): the message never reaches the global
// handlers at all.
int OnHandleError(TIFF*, void* user_data, const char* module, const char* fmt, va_list ap) {
  Record(static_cast<std::string*>(user_data), module, fmt, ap);
  return 1;
}
int OnHandleWarning(TIFF*, void*, const char*, const char*, va_list) { return 1; }
#endif

// ---- The file under libtiff, through positioned reads (no mapping) -----------

// libtiff allocates no more than this at once (a strip, a tag's array).
constexpr tmsize_t kMaxLibtiffAlloc = tmsize_t{256} << 20;
// A frame may claim this many pixels plus kPixelsPerFileByte per byte of its
// file: more than any codec reaches on a real image, yet a few bytes cannot
// make the caller allocate gigabytes.
constexpr std::uint64_t kSlackPixels = std::uint64_t{1} << 20;
constexpr std::uint64_t kPixelsPerFileByte = 8192;
constexpr std::uint64_t kMaxPixels = std::uint64_t{1} << 30;

struct Stream {
  platform::File file;
  std::uint64_t size = 0;
  std::uint64_t pos = 0;
};

tmsize_t StreamRead(thandle_t h, void* data, tmsize_t n) {
  auto* s = static_cast<Stream*>(h);
  if (n < 0) return -1;
  const std::size_t got = s->file.ReadAt(s->pos, data, static_cast<std::size_t>(n));
  s->pos += got;
  return static_cast<tmsize_t>(got);
}
tmsize_t StreamWrite(thandle_t, void*, tmsize_t) { return -1; }
toff_t StreamSeek(thandle_t h, toff_t offset, int whence) {
  auto* s = static_cast<Stream*>(h);
  const auto delta = static_cast<std::int64_t>(offset);
  std::uint64_t base = 0;
  if (whence == SEEK_CUR) base = s->pos;
  if (whence == SEEK_END) base = s->size;
  if (whence == SEEK_SET) {
    s->pos = offset;
  } else if (delta < 0 && static_cast<std::uint64_t>(-delta) > base) {
    return static_cast<toff_t>(-1);
  } else {
    s->pos = base + static_cast<std::uint64_t>(delta);
  }
  return s->pos;
}
int StreamClose(thandle_t) { return 0; }
toff_t StreamSize(thandle_t h) { return static_cast<Stream*>(h)->size; }
int StreamMap(thandle_t, void**, toff_t*) { return 0; }
void StreamUnmap(thandle_t, void*, toff_t) {}

// An open TIFF file: the stream outlives the handle that reads it.
class TiffFile {
 public:
  TiffFile() = default;
  ~TiffFile() { Close(); }
  TiffFile(const TiffFile&) = delete;
  TiffFile& operator=(const TiffFile&) = delete;

  // Opens `path`; false with the reason in *error.
  bool Open(const std::string& path, std::string* error) {
    Close();
    InstallHandlers();
    if (!stream_.file.Open(path, platform::File::Mode::kRead) ||
        !stream_.file.Size(&stream_.size)) {
      *error = path + ": cannot be opened";
      return false;
    }
    stream_.pos = 0;
    Capture capture(&message_);
    TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
    if (options == nullptr) {
      *error = path + ": out of memory";
      return false;
    }
    TIFFOpenOptionsSetMaxSingleMemAlloc(options, kMaxLibtiffAlloc);
#if TIFFLIB_VERSION >= 20221213
    TIFFOpenOptionsSetErrorHandlerExtR(options, OnHandleError, &message_);
    TIFFOpenOptionsSetWarningHandlerExtR(options, OnHandleWarning, nullptr);
#endif
    // "r" reads; "m" keeps libtiff from mapping the file ("h" would skip the
    // first directory, which we want read now).
    tif_ = TIFFClientOpenExt(path.c_str(), "rm", &stream_, StreamRead, StreamWrite, StreamSeek,
                             StreamClose, StreamSize, StreamMap, StreamUnmap, options);
    TIFFOpenOptionsFree(options);
    path_ = path;
    if (tif_ == nullptr) {
      *error =
          path + ": not a readable TIFF file" + (message_.empty() ? "" : " (" + Reason("") + ")");
      stream_.file.Close();
      return false;
    }
    return true;
  }
  void Close() {
    if (tif_ != nullptr) TIFFClose(tif_);
    tif_ = nullptr;
    stream_.file.Close();
  }
  TIFF* tif() const { return tif_; }
  std::uint64_t size() const { return stream_.size; }
  // libtiff's first message since the last Capture of it (see Reason).
  std::string* message() { return &message_; }
  // What went wrong in libtiff's words, or `fallback` when it said nothing.
  // libtiff names the file in most messages; the error names it already.
  std::string Reason(const char* fallback) const {
    if (message_.empty()) return fallback;
    std::string text = message_;
    const std::string named = path_ + ": ";
    for (std::size_t at; (at = text.find(named)) != std::string::npos;)
      text.erase(at, named.size());
    return text;
  }

 private:
  std::string path_;
  Stream stream_;
  TIFF* tif_ = nullptr;
  std::string message_;
};

// ---- One directory's pixel layout -------------------------------------------

enum class Kind { kGrey, kWhiteIsZero, kRgb };

struct Layout {
  std::uint32_t width = 0, height = 0;
  int bits = 0;
  Kind kind = Kind::kGrey;
  int samples = 1;        // per pixel
  bool separate = false;  // one plane per sample
  bool tiled = false;
  std::uint32_t tile_width = 0, tile_height = 0;
  bool lossy = false;
};

// Reads the current directory's layout; false with the reason when frfcam
// cannot read it.
bool ReadLayout(TIFF* tif, std::uint64_t file_size, Layout* l, std::string* why) {
  std::uint16_t bits = 0, samples = 0, format = 0, planar = 0, photometric = 0, compression = 0;
  if (!TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &l->width) ||
      !TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &l->height) || l->width == 0 || l->height == 0) {
    *why = "no image (0 x 0)";
    return false;
  }
  TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &bits);
  TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &samples);
  TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLEFORMAT, &format);
  TIFFGetFieldDefaulted(tif, TIFFTAG_PLANARCONFIG, &planar);
  TIFFGetFieldDefaulted(tif, TIFFTAG_COMPRESSION, &compression);
  if (!TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &photometric)) {
    photometric = samples >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK;
  }
  if (bits < 1 || bits > 16) {
    *why = std::to_string(bits) + "-bit samples (frfcam reads 1 to 16 bits)";
    return false;
  }
  if (format != SAMPLEFORMAT_UINT && format != SAMPLEFORMAT_VOID) {
    *why = "signed or floating-point samples (frfcam reads unsigned integers)";
    return false;
  }
  if (photometric == PHOTOMETRIC_MINISBLACK || photometric == PHOTOMETRIC_MINISWHITE) {
    l->kind = photometric == PHOTOMETRIC_MINISBLACK ? Kind::kGrey : Kind::kWhiteIsZero;
  } else if (photometric == PHOTOMETRIC_RGB && samples >= 3) {
    l->kind = Kind::kRgb;
  } else {
    *why = "photometric interpretation " + std::to_string(photometric) +
           " (frfcam reads grey and RGB)";
    return false;
  }
  if (samples < 1) {
    *why = "no samples per pixel";
    return false;
  }
  l->bits = bits;
  l->samples = samples;
  l->separate = planar == PLANARCONFIG_SEPARATE && samples > 1;
  l->tiled = TIFFIsTiled(tif) != 0;
  if (l->tiled) {
    TIFFGetField(tif, TIFFTAG_TILEWIDTH, &l->tile_width);
    TIFFGetField(tif, TIFFTAG_TILELENGTH, &l->tile_height);
    if (l->tile_width == 0 || l->tile_height == 0) {
      *why = "tiles of no size";
      return false;
    }
  }
  const std::uint64_t pixels = std::uint64_t{l->width} * l->height;
  if (pixels > kMaxPixels || pixels > kSlackPixels + kPixelsPerFileByte * file_size) {
    *why = "claims " + std::to_string(l->width) + " x " + std::to_string(l->height) +
           " pixels, more than the file can hold";
    return false;
  }
  const std::uint64_t chunk = l->tiled ? TIFFTileSize64(tif) : TIFFStripSize64(tif);
  if (chunk == 0 || chunk > static_cast<std::uint64_t>(kMaxLibtiffAlloc)) {
    *why = std::string(l->tiled ? "tiles" : "strips") + " of " + std::to_string(chunk) +
           " bytes (frfcam reads up to 256 MiB)";
    return false;
  }
  l->lossy = compression == COMPRESSION_JPEG || compression == COMPRESSION_OJPEG ||
             compression == COMPRESSION_WEBP || compression == COMPRESSION_JXL;
  return true;
}

// Sample `index` of a row of `bits`-bit samples: bytes for 8, native words for
// 16 (libtiff swaps them to the machine's order), otherwise bits packed from
// the most significant end.
inline unsigned SampleAt(const std::uint8_t* row, int bits, std::size_t index) {
  if (bits == 8) return row[index];
  if (bits == 16) {
    std::uint16_t v;
    std::memcpy(&v, row + 2 * index, 2);
    return v;
  }
  const std::size_t bit = index * static_cast<std::size_t>(bits);
  // Up to 16 bits starting anywhere in a byte span at most 3 bytes.
  std::uint32_t window = 0;
  const std::size_t first = bit / 8, last = (bit + bits - 1) / 8;
  for (std::size_t b = first; b <= last; ++b) window = (window << 8) | row[b];
  const unsigned shift = static_cast<unsigned>((last + 1) * 8 - bit - bits);
  return (window >> shift) & ((1u << bits) - 1);
}

// Decodes the current directory into `out` (grey, width x height). `chunk`
// and `sums` are scratch kept between frames.
bool DecodeFrame(TiffFile& file, const Layout& l, std::uint16_t* out,
                 std::vector<std::uint8_t>* chunk, std::vector<std::uint32_t>* sums,
                 std::string* why) {
  TIFF* tif = file.tif();
  Capture capture(file.message());
  const std::size_t chunk_bytes =
      static_cast<std::size_t>(l.tiled ? TIFFTileSize64(tif) : TIFFStripSize64(tif));
  const std::size_t row_bytes =
      static_cast<std::size_t>(l.tiled ? TIFFTileRowSize64(tif) : TIFFScanlineSize64(tif));
  const std::size_t pixels = std::size_t{l.width} * l.height;
  try {
    if (chunk->size() < chunk_bytes) chunk->resize(chunk_bytes);
    if (l.kind == Kind::kRgb) sums->assign(pixels, 0);
  } catch (const std::bad_alloc&) {
    *why = "out of memory";
    return false;
  }
  const int channels = l.kind == Kind::kRgb ? 3 : 1;
  const int planes = l.separate ? channels : 1;
  const std::size_t stride = l.separate ? 1 : static_cast<std::size_t>(l.samples);
  const unsigned max_code = (1u << l.bits) - 1;
  std::uint32_t rows_per_strip = 0;
  TIFFGetFieldDefaulted(tif, TIFFTAG_ROWSPERSTRIP, &rows_per_strip);
  // A strip is a chunk as wide as the image.
  const std::uint32_t cw = l.tiled ? l.tile_width : l.width;
  const std::uint32_t ch = l.tiled ? l.tile_height : std::max<std::uint32_t>(rows_per_strip, 1);

  for (int plane = 0; plane < planes; ++plane) {
    const auto s = static_cast<std::uint16_t>(plane);
    std::uint32_t rows = 0;
    for (std::uint32_t y = 0; y < l.height; y += rows) {
      rows = std::min(ch, l.height - y);
      for (std::uint32_t x = 0; x < l.width; x += cw) {
        // One strip or tile: rows [y, y + rows), columns [x, x + cols).
        const auto size = static_cast<tmsize_t>(chunk_bytes);
        const tmsize_t got =
            l.tiled
                ? TIFFReadEncodedTile(tif, TIFFComputeTile(tif, x, y, 0, s), chunk->data(), size)
                : TIFFReadEncodedStrip(tif, TIFFComputeStrip(tif, y, s), chunk->data(), size);
        if (got < 0 || static_cast<std::uint64_t>(got) < std::uint64_t{rows} * row_bytes) {
          *why = file.Reason("a strip or tile is short");
          return false;
        }
        const std::uint32_t cols = std::min(cw, l.width - x);
        for (std::uint32_t r = 0; r < rows; ++r) {
          const std::uint8_t* row = chunk->data() + r * row_bytes;
          const std::size_t at = std::size_t{y + r} * l.width + x;
          if (l.kind != Kind::kRgb) {
            std::uint16_t* dst = out + at;
            if (l.bits == 8 && stride == 1) {
              for (std::uint32_t i = 0; i < cols; ++i) dst[i] = row[i];
            } else if (l.bits == 16 && stride == 1) {
              std::memcpy(dst, row, std::size_t{cols} * 2);
            } else {
              for (std::uint32_t i = 0; i < cols; ++i) {
                dst[i] = static_cast<std::uint16_t>(SampleAt(row, l.bits, i * stride));
              }
            }
            if (l.kind == Kind::kWhiteIsZero) {
              for (std::uint32_t i = 0; i < cols; ++i) {
                dst[i] = static_cast<std::uint16_t>(max_code - dst[i]);
              }
            }
          } else {
            // Contiguous: red, green and blue side by side; separate: this
            // plane's one channel.
            std::uint32_t* dst = sums->data() + at;
            for (int c = 0; c < (l.separate ? 1 : channels); ++c) {
              for (std::uint32_t i = 0; i < cols; ++i) {
                dst[i] += SampleAt(row, l.bits, i * stride + static_cast<std::size_t>(c));
              }
            }
          }
        }
      }
    }
  }
  if (l.kind == Kind::kRgb) {
    for (std::size_t i = 0; i < pixels; ++i)
      out[i] = static_cast<std::uint16_t>(((*sums)[i] + 1) / 3);
  }
  return true;
}

// Whether frame `l` can stand beside the first frame `first`.
bool SameLayout(const Layout& first, const Layout& l, std::string* why) {
  if (l.width != first.width || l.height != first.height || l.bits != first.bits) {
    *why = std::to_string(l.width) + " x " + std::to_string(l.height) + " at " +
           std::to_string(l.bits) + " bits where the first frame is " +
           std::to_string(first.width) + " x " + std::to_string(first.height) + " at " +
           std::to_string(first.bits) + " bits";
    return false;
  }
  if (l.kind != first.kind) {
    *why = "a different colour model from the first frame's";
    return false;
  }
  return true;
}

SourceInfo InfoFor(const Layout& l) {
  SourceInfo info;
  info.format = "TIFF";
  info.width = l.width;
  info.height = l.height;
  info.bits = l.bits;
  info.lossy = l.lossy;
  if (l.kind == Kind::kWhiteIsZero) {
    info.notes = "white-is-zero samples inverted to black-is-zero (2^bits - 1 - code)";
  } else if (l.kind == Kind::kRgb) {
    info.notes = "colour turned to grey as the rounded mean of red, green and blue";
  }
  return info;
}

void AppendNote(std::string* notes, const std::string& note) {
  if (note.empty()) return;
  if (!notes->empty()) *notes += "; ";
  *notes += note;
}

// ---- A multipage file --------------------------------------------------------

class MultipageTiff : public VideoSource {
 public:
  bool Open(const std::string& path, std::string* error) {
    path_ = path;
    if (!file_.Open(path, error)) return false;
    std::string why;
    if (!ReadLayout(file_.tif(), file_.size(), &first_, &why)) {
      *error = path + ": " + why;
      return false;
    }
    // Every directory is read now, so that a damaged or different frame is
    // found before any work starts.
    std::int64_t frames = 1;
    for (;;) {
      int more;
      {
        Capture capture(file_.message());
        more = TIFFReadDirectory(file_.tif());
      }
      if (!more) {
        if (!file_.message()->empty()) {
          *error = path + ": frame " + std::to_string(frames) + ": " + file_.Reason("");
          return false;
        }
        break;
      }
      Layout l;
      if (!ReadLayout(file_.tif(), file_.size(), &l, &why) || !SameLayout(first_, l, &why)) {
        *error = path + ": frame " + std::to_string(frames) + ": " + why;
        return false;
      }
      first_.lossy = first_.lossy || l.lossy;
      ++frames;
    }
    info_ = InfoFor(first_);
    info_.frames = frames;
    current_ = frames - 1;
    return true;
  }

  bool ReadFrame(std::int64_t f, std::uint16_t* samples, std::string* error) override {
    const std::string where = path_ + ": frame " + std::to_string(f) + ": ";
    if (f < 0 || f >= info_.frames) {
      *error = where + "out of range";
      return false;
    }
    if (f != current_) {
      int ok;
      {
        Capture capture(file_.message());
        ok = f == current_ + 1 ? TIFFReadDirectory(file_.tif())
                               : TIFFSetDirectory(file_.tif(), static_cast<tdir_t>(f));
      }
      if (!ok) {
        current_ = -2;  // unknown: the next read seeks from the start
        *error = where + file_.Reason("cannot read its directory");
        return false;
      }
      current_ = f;
    }
    Layout l;
    std::string why;
    if (!ReadLayout(file_.tif(), file_.size(), &l, &why) || !SameLayout(first_, l, &why) ||
        !DecodeFrame(file_, l, samples, &chunk_, &sums_, &why)) {
      *error = where + why;
      return false;
    }
    return true;
  }

 private:
  std::string path_;
  TiffFile file_;
  Layout first_;
  std::int64_t current_ = 0;  // the directory libtiff has read
  std::vector<std::uint8_t> chunk_;
  std::vector<std::uint32_t> sums_;
};

// ---- A folder of numbered files ------------------------------------------------

class TiffFolder : public VideoSource {
 public:
  bool Open(const std::string& folder, std::string* error) {
    NumberedFiles listing;
    if (!ListNumberedFiles(folder, {".tif", ".tiff"}, &listing, error)) return false;
    paths_ = std::move(listing.paths);
    std::string why;
    if (!OpenPage(0, &why)) {
      *error = why;
      return false;
    }
    file_.Close();
    info_ = InfoFor(first_);
    info_.frames = static_cast<std::int64_t>(paths_.size());
    AppendNote(&info_.notes, listing.notes);
    return true;
  }

  bool ReadFrame(std::int64_t f, std::uint16_t* samples, std::string* error) override {
    if (f < 0 || f >= info_.frames) {
      *error = "frame " + std::to_string(f) + " out of range";
      return false;
    }
    const std::string& path = paths_[static_cast<std::size_t>(f)];
    std::string why;
    Layout l;
    if (!OpenPage(f, &why, &l)) {
      *error = why;
      return false;
    }
    const bool ok = DecodeFrame(file_, l, samples, &chunk_, &sums_, &why);
    file_.Close();
    if (!ok) *error = path + ": " + why;
    return ok;
  }

 private:
  // Opens file f and reads its layout into *l (frame 0's into first_).
  bool OpenPage(std::int64_t f, std::string* error, Layout* l = nullptr) {
    const std::string& path = paths_[static_cast<std::size_t>(f)];
    if (!file_.Open(path, error)) return false;
    Layout& layout = l != nullptr ? *l : first_;
    std::string why;
    if (!ReadLayout(file_.tif(), file_.size(), &layout, &why) ||
        (l != nullptr && !SameLayout(first_, layout, &why))) {
      *error = path + ": " + why;
      file_.Close();
      return false;
    }
    if (!TIFFLastDirectory(file_.tif())) {
      *error = path + ": holds more than one page, in a folder of single-page frames";
      file_.Close();
      return false;
    }
    return true;
  }

  std::vector<std::string> paths_;
  TiffFile file_;
  Layout first_;
  std::vector<std::uint8_t> chunk_;
  std::vector<std::uint32_t> sums_;
};

}  // namespace

std::unique_ptr<VideoSource> OpenTiff(const std::string& path, std::string* error) {
  if (IsFolder(path)) {
    auto source = std::make_unique<TiffFolder>();
    if (!source->Open(path, error)) return nullptr;
    return source;
  }
  auto source = std::make_unique<MultipageTiff>();
  if (!source->Open(path, error)) return nullptr;
  return source;
}

}  // namespace frfcam::camera

#endif
