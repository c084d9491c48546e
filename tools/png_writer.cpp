#include "png_writer.h"

#include <png.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "command_error.h"

namespace frfcam::cli {

namespace {

void Append(png_structp png, png_bytep data, png_size_t length) {
  static_cast<std::string*>(png_get_io_ptr(png))
      ->append(reinterpret_cast<const char*>(data), length);
}

void NoFlush(png_structp) {}

// libpng reports errors by longjmp, so this part holds nothing with a
// destructor; `out` is only appended to through the write callback.
bool EncodeRows(std::string* out, png_bytep* rows, unsigned width, unsigned height, int color_type,
                png_textp text, int text_count) {
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
  if (png == nullptr || info == nullptr) {
    png_destroy_write_struct(&png, &info);
    return false;
  }
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    return false;
  }
  png_set_write_fn(png, out, &Append, &NoFlush);
  png_set_IHDR(png, info, width, height, 8, color_type, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  if (text_count > 0) png_set_text(png, info, text, text_count);
  png_write_info(png, info);
  png_write_image(png, rows);
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return true;
}

bool EncodePng(const std::uint8_t* pixels, unsigned width, unsigned height, unsigned channels,
               const PngText& text, std::string* out) {
  std::vector<png_bytep> rows(height);
  for (unsigned y = 0; y < height; ++y) {
    rows[y] = const_cast<png_bytep>(pixels + static_cast<std::size_t>(y) * width * channels);
  }
  std::vector<png_text> chunks(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    chunks[i] = {};
    chunks[i].compression = PNG_TEXT_COMPRESSION_NONE;
    chunks[i].key = const_cast<char*>(text[i].first.c_str());
    chunks[i].text = const_cast<char*>(text[i].second.c_str());
    chunks[i].text_length = text[i].second.size();
  }
  const int color_type = channels == 3 ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_GRAY;
  out->clear();
  return EncodeRows(out, rows.data(), width, height, color_type, chunks.data(),
                    static_cast<int>(chunks.size()));
}

void WritePng(const std::string& path, const std::uint8_t* pixels, unsigned width, unsigned height,
              unsigned channels, const PngText& text) {
  std::string bytes;
  if (!EncodePng(pixels, width, height, channels, text, &bytes)) {
    throw CommandError("cannot encode " + path);
  }
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "wb"),
                                                       &std::fclose);
  if (!file) throw CommandError("cannot create " + path);
  if (std::fwrite(bytes.data(), 1, bytes.size(), file.get()) != bytes.size() ||
      std::fflush(file.get()) != 0) {
    throw CommandError("cannot write " + path);
  }
}

}  // namespace

std::string GrayPng(const std::uint8_t* pixels, unsigned width, unsigned height) {
  std::string bytes;
  if (!EncodePng(pixels, width, height, 1, {}, &bytes)) throw CommandError("cannot encode a PNG");
  return bytes;
}

std::string RgbPng(const std::uint8_t* rgb, unsigned width, unsigned height) {
  std::string bytes;
  if (!EncodePng(rgb, width, height, 3, {}, &bytes)) throw CommandError("cannot encode a PNG");
  return bytes;
}

void WriteGrayPng(const std::string& path, const std::uint8_t* pixels, unsigned width,
                  unsigned height) {
  WritePng(path, pixels, width, height, 1, {});
}

void WriteRgbPng(const std::string& path, const std::uint8_t* rgb, unsigned width, unsigned height,
                 const PngText& text) {
  WritePng(path, rgb, width, height, 3, text);
}

}  // namespace frfcam::cli
