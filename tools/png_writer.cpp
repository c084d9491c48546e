#include "png_writer.h"

#include <png.h>

#include <cstdio>
#include <memory>
#include <vector>

#include "commands.h"

namespace frfcam::cli {

namespace {

// libpng reports errors by longjmp, so this part holds nothing with a
// destructor.
bool WriteRows(std::FILE* file, png_bytep* rows, unsigned width, unsigned height) {
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
  png_init_io(png, file);
  png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  png_write_image(png, rows);
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return true;
}

}  // namespace

void WriteGrayPng(const std::string& path, const std::uint8_t* pixels, unsigned width,
                  unsigned height) {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "wb"),
                                                       &std::fclose);
  if (!file) throw CommandError("cannot create " + path);
  std::vector<png_bytep> rows(height);
  for (unsigned y = 0; y < height; ++y) {
    rows[y] = const_cast<png_bytep>(pixels + static_cast<std::size_t>(y) * width);
  }
  if (!WriteRows(file.get(), rows.data(), width, height) || std::fflush(file.get()) != 0) {
    throw CommandError("cannot write " + path);
  }
}

}  // namespace frfcam::cli
