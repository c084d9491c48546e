// Recordings into captures: `frfcam import`, and the capture kept beside a
// source so that every command can take the source itself.
//
// Samples: an 8-bit source becomes an 8-bit capture, anything deeper a
// 12-bit packed one, the source's significant bits shifted (down for 16-bit
// codes, up for 10-bit ones), never clipped or rescaled; `bits` forces
// either. (12-bit packing stores the last pixel of a frame with an odd
// pixel count in one byte: its low four bits are lost, and the note says
// so.) What was done is written after the capture's header
// (CaptureDesc::note), with the source, its format, the frames and the
// region taken.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "camera/video_source.h"

namespace frfcam::camera {

// The reader for `path` by what it is: a folder of numbered TIFFs or PNGs;
// .cih, .cihx or .mraw; .cine; .tif or .tiff; anything else through FFmpeg.
std::unique_ptr<VideoSource> OpenSource(const std::string& path, std::string* error);

// Whether `path` names a recording rather than one of our capture headers:
// a folder, or a file whose extension is not .hdr and which has no capture
// data folder beside it.
bool IsSource(const std::string& path);

struct ImportOptions {
  std::int64_t firstFrame = 0;  // inclusive
  std::int64_t lastFrame = -1;  // inclusive; -1: the last
  // Region of interest: x, y, width, height; width 0 takes the whole frame.
  unsigned roiX = 0, roiY = 0, roiWidth = 0, roiHeight = 0;
  double fps = 0.0;  // > 0 overrides the source's; needed when it has none
  int bits = 0;      // 8 or 12 forces the capture's depth; 0 chooses
  // Called with 0..100 as frames are written (from the calling thread).
  std::function<void(int percent)> progress;
  const std::atomic<bool>* cancel = nullptr;  // polled between frames
};

struct ImportResult {
  SourceInfo source;
  std::int64_t frames = 0;
  unsigned width = 0, height = 0;
  int bits = 0;   // of the capture: 8 or 12
  int shift = 0;  // source code << shift (negative: >>) gives the sample
  double fps = 0.0;
  std::string note;  // as written after the header
};

// Writes the capture `header` from `source` (named `sourceName` in the
// note). False with one line in *error: options the source cannot meet (a
// frame range or region outside it, no frame rate), a frame that cannot be
// read, a write that fails, a cancel ("cancelled"). On failure no header is
// left, so nothing reads as a complete capture.
bool Import(VideoSource& source, const std::string& sourceName, const std::string& header,
            const ImportOptions& options, ImportResult* result, std::string* error);

// The capture of a source for direct use: SOURCE.frfcam/capture.hdr beside
// the source (or in `workDir` when given, for read-only places), imported
// once and reused while the source's size and modification time (for a
// folder: its files' count, sizes and newest time) are the ones kept with
// it. `options` applies to a new import only (its frame range and region
// are not part of the rule). Sets *imported when it had to import. False
// with one line in *error.
bool CaptureOfSource(const std::string& source, const std::string& workDir,
                     const ImportOptions& options, std::string* header, bool* imported,
                     std::string* error);

}  // namespace frfcam::camera
