#include "svg_raster.h"

#include "command_error.h"

#if defined(FRFCAM_HAVE_RSVG)
#include <cairo.h>
#include <librsvg/rsvg.h>
#endif

namespace frfcam::cli {

bool SvgRasterAvailable() {
#if defined(FRFCAM_HAVE_RSVG)
  return true;
#else
  return false;
#endif
}

void RequireSvgRaster(const std::string& what) {
  if (!SvgRasterAvailable()) {
    throw CommandError(what + " needs librsvg, which this build lacks; write .svg instead");
  }
}

std::vector<std::uint8_t> RasteriseSvg(const std::string& svg, unsigned width, unsigned height) {
  RequireSvgRaster("PNG output");
#if defined(FRFCAM_HAVE_RSVG)
  GError* error = nullptr;
  RsvgHandle* handle =
      rsvg_handle_new_from_data(reinterpret_cast<const guint8*>(svg.data()), svg.size(), &error);
  if (handle == nullptr) {
    const std::string why = error != nullptr ? error->message : "unknown error";
    if (error != nullptr) g_error_free(error);
    throw CommandError("cannot draw the figure: " + why);
  }
  cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_RGB24, static_cast<int>(width),
                                                        static_cast<int>(height));
  cairo_t* cr = cairo_create(surface);
  cairo_set_source_rgb(cr, 1.0, 1.0, 1.0);
  cairo_paint(cr);
  const RsvgRectangle viewport = {0.0, 0.0, static_cast<double>(width),
                                  static_cast<double>(height)};
  const bool drawn = rsvg_handle_render_document(handle, cr, &viewport, &error);
  cairo_destroy(cr);
  g_object_unref(handle);
  cairo_surface_flush(surface);
  std::vector<std::uint8_t> rgb;
  if (drawn && cairo_surface_status(surface) == CAIRO_STATUS_SUCCESS) {
    const unsigned char* data = cairo_image_surface_get_data(surface);
    const int stride = cairo_image_surface_get_stride(surface);
    rgb.resize(std::size_t{width} * height * 3);
    for (unsigned y = 0; y < height; ++y) {
      // RGB24 keeps each pixel as a native-endian 32-bit 0x00RRGGBB.
      const auto* row = reinterpret_cast<const std::uint32_t*>(data + std::size_t{y} * stride);
      for (unsigned x = 0; x < width; ++x) {
        std::uint8_t* out = &rgb[(std::size_t{y} * width + x) * 3];
        out[0] = static_cast<std::uint8_t>(row[x] >> 16);
        out[1] = static_cast<std::uint8_t>(row[x] >> 8);
        out[2] = static_cast<std::uint8_t>(row[x]);
      }
    }
  }
  cairo_surface_destroy(surface);
  if (!drawn) {
    const std::string why = error != nullptr ? error->message : "unknown error";
    if (error != nullptr) g_error_free(error);
    throw CommandError("cannot draw the figure: " + why);
  }
  if (rgb.empty()) throw CommandError("cannot draw the figure: out of memory");
  return rgb;
#else
  (void)svg;
  (void)width;
  (void)height;
  return {};
#endif
}

}  // namespace frfcam::cli
