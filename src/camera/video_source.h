// Recordings as cameras and common tools write them, read frame by frame as
// grey samples: the sources `frfcam import` turns into captures.
//
// Every reader gives the same view of its file: the image size, the frame
// count, the frame rate when the file says it, the significant bits of a
// sample, and each frame as width x height samples in raster order from the
// top-left pixel, whatever order the file stores rows in. Samples are the
// file's pixel codes under the format's documented mapping (packed codes
// unpacked, coded ones linearised, colour turned to grey), never rescaled:
// a 10-bit camera gives values 0..1023 with bits = 10.
//
// Readers hold their files open with positioned reads (platform::File), never
// mappings, and check every size and offset a header claims against the file
// before they trust it: a damaged or truncated file gives a one-line reason,
// never a crash, a hang or an allocation the file cannot justify.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace frfcam::camera {

struct SourceInfo {
  std::string format;  // "MRAW", "CINE", "TIFF", "PNG", or what FFmpeg calls it
  unsigned width = 0, height = 0;
  std::int64_t frames = 0;
  double fps = 0.0;    // 0 when the source does not say
  int bits = 8;        // ReadFrame's values lie in 0 .. 2^bits - 1 (bits <= 16)
  bool lossy = false;  // compression noise, spread over all frequencies
  // What the reader did to the values beyond unpacking, in one line (for
  // example the table a coded 10-bit camera needs); empty when nothing.
  std::string notes;
};

class VideoSource {
 public:
  virtual ~VideoSource() = default;
  const SourceInfo& info() const { return info_; }

  // Frame f (0 <= f < frames) into `samples` (width x height values). False
  // with one line in *error (the file, the frame, what is wrong) when it
  // cannot be read; the samples are then unspecified. Frames may be read in
  // any order, increasing order being the fast one; one thread at a time.
  virtual bool ReadFrame(std::int64_t f, std::uint16_t* samples, std::string* error) = 0;

  // The import's fast path, for files that store frames (nearly) as a
  // capture does. True when every frame's codes have exactly `bits` (8 or
  // 12) significant bits and ReadCaptureBytes can give them in the capture's
  // pixel form: one byte a pixel for 8; for 12, pairs packed as the capture
  // writer packs them, each frame starting with a whole pair.
  virtual bool HasCaptureBytes(int bits) const {
    (void)bits;
    return false;
  }
  // Rows [y0, y0 + rows) of frame f in that form into `out` (width * rows
  // bytes, or width * rows * 3 / 2 with width * y0 and width * rows even).
  // Only after HasCaptureBytes(bits) said true; errors as ReadFrame.
  virtual bool ReadCaptureBytes(std::int64_t f, int bits, unsigned y0, unsigned rows,
                                std::uint8_t* out, std::string* error) {
    (void)f, (void)bits, (void)y0, (void)rows, (void)out;
    *error = "no stored capture form";
    return false;
  }

 protected:
  SourceInfo info_;
};

// The readers, one per format; each returns nullptr with a one-line reason
// in *error when the source cannot be opened.
// A CIH or CIHX header (or the MRAW file beside it).
std::unique_ptr<VideoSource> OpenMraw(const std::string& path, std::string* error);
// A CINE file.
std::unique_ptr<VideoSource> OpenCine(const std::string& path, std::string* error);
// A multipage TIFF, or a folder of numbered TIFFs.
std::unique_ptr<VideoSource> OpenTiff(const std::string& path, std::string* error);
// A folder of numbered PNGs.
std::unique_ptr<VideoSource> OpenPngSequence(const std::string& path, std::string* error);
// Anything FFmpeg's libraries demux and decode.
std::unique_ptr<VideoSource> OpenFfmpeg(const std::string& path, std::string* error);

}  // namespace frfcam::camera
