// Folders of numbered PNG files through libpng.
#include <png.h>

#include <bit>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "camera/numbered_files.h"
#include "camera/video_source.h"
#include "platform/platform.h"

namespace frfcam::camera {
namespace {

// A frame's raw rows may hold at most this many bytes per byte of file plus
// kSlackBytes: deflate packs no more than 1032 to 1, so a larger claim is a
// damaged header, and it must not make the caller allocate for it.
constexpr std::uint64_t kRawBytesPerFileByte = 1040;
constexpr std::uint64_t kSlackBytes = std::uint64_t{1} << 20;

// What the decoder reads, one PNG file. Plain data only: the function that
// calls setjmp must hold no object whose destructor a longjmp would skip.
struct PngJob {
  const platform::File* file = nullptr;
  std::uint64_t file_size = 0;
  std::uint64_t pos = 0;
  bool header_only = false;
  // The rows' storage, from the caller's frame (null when out of memory).
  std::uint8_t* (*buffer)(void* owner, std::size_t bytes) = nullptr;
  void* owner = nullptr;
  // Results: the image, and the decoded rows as 1 (grey) or 3 (RGB)
  // channels of 8 or 16 bits (native order), `row_bytes` apart.
  png_uint_32 width = 0, height = 0;
  int bits = 0;       // of the samples' values (1, 2, 4, 8 or 16)
  int channels = 0;   // 1 or 3
  bool wide = false;  // 16-bit storage
  bool palette = false;
  std::size_t row_bytes = 0;
  const std::uint8_t* rows = nullptr;
  char message[200] = {};
};

void OnPngError(png_structp png, png_const_charp text) {
  auto* job = static_cast<PngJob*>(png_get_error_ptr(png));
  if (job->message[0] == '\0') std::snprintf(job->message, sizeof job->message, "%s", text);
  png_longjmp(png, 1);
}
void OnPngWarning(png_structp, png_const_charp) {}

void ReadData(png_structp png, png_bytep data, png_size_t n) {
  auto* job = static_cast<PngJob*>(png_get_io_ptr(png));
  const std::size_t got = job->file->ReadAt(job->pos, data, n);
  job->pos += got;
  if (got != n) png_error(png, "the file is truncated");
}

// Reads the header, and unless job->header_only the pixels. False with
// job->message set on any error libpng or the checks here raise.
bool DecodePng(PngJob* job) {
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, job, OnPngError, OnPngWarning);
  if (png == nullptr) {
    std::snprintf(job->message, sizeof job->message, "out of memory");
    return false;
  }
  png_infop info = png_create_info_struct(png);
  if (info == nullptr) {
    png_destroy_read_struct(&png, nullptr, nullptr);
    std::snprintf(job->message, sizeof job->message, "out of memory");
    return false;
  }
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_read_struct(&png, &info, nullptr);
    return false;
  }
  png_set_read_fn(png, job, ReadData);
  png_read_info(png, info);
  int depth = 0, colour = 0, interlace = 0;
  png_get_IHDR(png, info, &job->width, &job->height, &depth, &colour, &interlace, nullptr, nullptr);
  const std::uint64_t raw_row =
      (std::uint64_t{job->width} * png_get_channels(png, info) * depth + 7) / 8 + 1;
  if (job->width == 0 || job->height == 0) png_error(png, "no image (0 x 0)");
  if (raw_row * job->height > kSlackBytes + kRawBytesPerFileByte * job->file_size) {
    png_error(png, "the header claims more pixels than the file can hold");
  }
  job->palette = colour == PNG_COLOR_TYPE_PALETTE;
  job->bits = job->palette ? 8 : depth;
  job->channels = (colour & PNG_COLOR_MASK_COLOR) != 0 ? 3 : 1;
  job->wide = depth == 16;
  if (job->header_only) {
    png_destroy_read_struct(&png, &info, nullptr);
    return true;
  }

  // Palette indices become their RGB colours; grey below 8 bits one value a
  // byte, unscaled; alpha goes; 16-bit samples come in the machine's order.
  if (job->palette) png_set_palette_to_rgb(png);
  if (depth < 8 && !job->palette) png_set_packing(png);
  if ((colour & PNG_COLOR_MASK_ALPHA) != 0) png_set_strip_alpha(png);
  if (depth == 16 && std::endian::native == std::endian::little) png_set_swap(png);
  const int passes = png_set_interlace_handling(png);
  png_read_update_info(png, info);
  job->row_bytes = png_get_rowbytes(png, info);
  const std::size_t bytes = job->row_bytes * job->height;
  std::uint8_t* rows = job->buffer(job->owner, bytes);
  if (rows == nullptr) png_error(png, "out of memory");
  // Interlaced passes fill in the rows they left; the last completes them.
  for (int pass = 0; pass < passes; ++pass) {
    for (png_uint_32 y = 0; y < job->height; ++y) {
      png_read_row(png, rows + y * job->row_bytes, nullptr);
    }
  }
  png_read_end(png, nullptr);
  job->rows = rows;
  png_destroy_read_struct(&png, &info, nullptr);
  return true;
}

std::uint8_t* GrowBuffer(void* owner, std::size_t bytes) {
  auto* buffer = static_cast<std::vector<std::uint8_t>*>(owner);
  try {
    if (buffer->size() < bytes) buffer->resize(bytes);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  return buffer->data();
}

class PngSequence : public VideoSource {
 public:
  bool Open(const std::string& folder, std::string* error) {
    if (!IsFolder(folder)) {
      *error = folder + ": not a folder (a PNG sequence is read from its folder)";
      return false;
    }
    NumberedFiles listing;
    if (!ListNumberedFiles(folder, {".png"}, &listing, error)) return false;
    paths_ = std::move(listing.paths);
    if (!Decode(0, true, &first_, error)) return false;
    info_.format = "PNG";
    info_.width = first_.width;
    info_.height = first_.height;
    info_.frames = static_cast<std::int64_t>(paths_.size());
    info_.bits = first_.bits;
    if (first_.channels == 3) {
      info_.notes =
          first_.palette
              ? "palette colours turned to grey as the rounded mean of red, green and blue"
              : "colour turned to grey as the rounded mean of red, green and blue";
    }
    if (!listing.notes.empty()) {
      info_.notes += (info_.notes.empty() ? "" : "; ") + listing.notes;
    }
    return true;
  }

  bool ReadFrame(std::int64_t f, std::uint16_t* samples, std::string* error) override {
    if (f < 0 || f >= info_.frames) {
      *error = "frame " + std::to_string(f) + " out of range";
      return false;
    }
    PngJob job;
    if (!Decode(f, false, &job, error)) return false;
    const std::string& path = paths_[static_cast<std::size_t>(f)];
    if (job.width != first_.width || job.height != first_.height || job.bits != first_.bits ||
        job.channels != first_.channels) {
      *error = path + ": " + std::to_string(job.width) + " x " + std::to_string(job.height) +
               " at " + std::to_string(job.bits) + " bits" + (job.channels == 3 ? " colour" : "") +
               " where the first frame is " + std::to_string(first_.width) + " x " +
               std::to_string(first_.height) + " at " + std::to_string(first_.bits) + " bits" +
               (first_.channels == 3 ? " colour" : "");
      return false;
    }
    const std::size_t w = job.width;
    for (png_uint_32 y = 0; y < job.height; ++y) {
      const std::uint8_t* row = job.rows + y * job.row_bytes;
      std::uint16_t* dst = samples + y * w;
      if (job.channels == 1 && !job.wide) {
        for (std::size_t x = 0; x < w; ++x) dst[x] = row[x];
      } else if (job.channels == 1) {
        std::memcpy(dst, row, w * 2);
      } else if (!job.wide) {
        for (std::size_t x = 0; x < w; ++x) {
          dst[x] =
              static_cast<std::uint16_t>((row[3 * x] + row[3 * x + 1] + row[3 * x + 2] + 1) / 3);
        }
      } else {
        for (std::size_t x = 0; x < w; ++x) {
          std::uint16_t rgb[3];
          std::memcpy(rgb, row + 6 * x, 6);
          dst[x] = static_cast<std::uint16_t>((std::uint32_t{rgb[0]} + rgb[1] + rgb[2] + 1) / 3);
        }
      }
    }
    return true;
  }

 private:
  bool Decode(std::int64_t f, bool header_only, PngJob* job, std::string* error) {
    const std::string& path = paths_[static_cast<std::size_t>(f)];
    platform::File file;
    if (!file.Open(path, platform::File::Mode::kRead) || !file.Size(&job->file_size)) {
      *error = path + ": cannot be opened";
      return false;
    }
    job->file = &file;
    job->header_only = header_only;
    job->buffer = GrowBuffer;
    job->owner = &rows_;
    if (!DecodePng(job)) {
      *error = path + ": " + job->message;
      return false;
    }
    return true;
  }

  std::vector<std::string> paths_;
  PngJob first_;
  std::vector<std::uint8_t> rows_;
};

}  // namespace

std::unique_ptr<VideoSource> OpenPngSequence(const std::string& path, std::string* error) {
  auto source = std::make_unique<PngSequence>();
  if (!source->Open(path, error)) return nullptr;
  return source;
}

}  // namespace frfcam::camera
