#include "png_reader.h"

#include <png.h>

#include <algorithm>
#include <cstdio>

namespace frfcam::cli {

// libpng reports errors by longjmp: nothing with a destructor lives in this frame.
bool ReadPng(const std::string& path, Png* out) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return false;
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(file);
    return false;
  }
  png_init_io(png, file);
  png_read_png(png, info, PNG_TRANSFORM_IDENTITY, nullptr);
  const bool rgb = png_get_color_type(png, info) == PNG_COLOR_TYPE_RGB;
  out->width = png_get_image_width(png, info);
  out->height = png_get_image_height(png, info);
  png_bytepp rows = png_get_rows(png, info);
  png_textp text = nullptr;
  const int count = png_get_text(png, info, &text, nullptr);
  if (rgb) {
    out->rgb.resize(3 * std::size_t{out->width} * out->height);
    for (unsigned y = 0; y < out->height; ++y) {
      std::copy(rows[y], rows[y] + 3 * out->width, &out->rgb[3 * std::size_t{y} * out->width]);
    }
    for (int i = 0; i < count; ++i) out->text[text[i].key] = text[i].text;
  }
  png_destroy_read_struct(&png, &info, nullptr);
  std::fclose(file);
  return rgb;
}

}  // namespace frfcam::cli
