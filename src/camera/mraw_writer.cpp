#include "camera/mraw_writer.h"

#include <cstdio>
#include <filesystem>
#include <vector>

#include "formats/output_file.h"
#include "platform/platform.h"

namespace frfcam::camera {

namespace {

bool Fail(std::string* error, const std::string& message) {
  if (error != nullptr) *error = message;
  return false;
}

}  // namespace

bool WriteMraw(const std::string& cihPath, const MrawSetup& setup, const MrawFrames& frames,
               std::string* error) {
  if (setup.width == 0 || setup.height == 0 || setup.frames <= 0 || !(setup.fps > 0.0)) {
    return Fail(error, "an MRAW recording needs a size, frames and a frame rate");
  }
  if (setup.bits != 8 && setup.bits != 12 && setup.bits != 16) {
    return Fail(error, "MRAW codes are 8, 12 or 16 bits");
  }
  const std::filesystem::path cih = platform::PathFromUtf8(cihPath);
  std::filesystem::path mraw = cih;
  mraw.replace_extension(".mraw");
  const std::string mrawPath = mraw.string();
  std::error_code ec;
  std::filesystem::remove(cih, ec);

  platform::File out;
  if (!out.Open(mrawPath, platform::File::Mode::kCreate)) {
    return Fail(error, "cannot create " + mrawPath);
  }
  const std::size_t pixels = std::size_t{setup.width} * setup.height;
  std::vector<std::uint16_t> codes(pixels);
  std::vector<std::uint8_t> bytes;
  std::uint64_t offset = 0;
  // A 12-bit code whose second half waits for the next frame's first code.
  bool pending = false;
  std::uint16_t held = 0;
  for (std::int64_t f = 0; f < setup.frames; ++f) {
    frames(f, codes.data());
    bytes.clear();
    if (setup.bits == 8) {
      for (std::uint16_t c : codes) bytes.push_back(static_cast<std::uint8_t>(c));
    } else if (setup.bits == 16) {
      for (std::uint16_t c : codes) {
        bytes.push_back(static_cast<std::uint8_t>(c));
        bytes.push_back(static_cast<std::uint8_t>(c >> 8));
      }
    } else {
      std::size_t i = 0;
      const auto pair = [&](unsigned a, unsigned b) {
        bytes.push_back(static_cast<std::uint8_t>(a >> 4));
        bytes.push_back(static_cast<std::uint8_t>((a & 15u) << 4 | (b >> 8)));
        bytes.push_back(static_cast<std::uint8_t>(b));
      };
      if (pending && pixels > 0) {
        pair(held, codes[0] & 0xFFFu);
        pending = false;
        i = 1;
      }
      for (; i + 1 < pixels; i += 2) pair(codes[i] & 0xFFFu, codes[i + 1] & 0xFFFu);
      if (i < pixels) {
        held = codes[i] & 0xFFFu;
        pending = true;
      }
    }
    if (out.WriteAt(offset, bytes.data(), bytes.size()) != bytes.size()) {
      return Fail(error, "cannot write " + mrawPath);
    }
    offset += bytes.size();
  }
  if (pending) {  // the stream's last half group, padded with zero bits
    const std::uint8_t tail[2] = {static_cast<std::uint8_t>(held >> 4),
                                  static_cast<std::uint8_t>((held & 15u) << 4)};
    if (out.WriteAt(offset, tail, 2) != 2) return Fail(error, "cannot write " + mrawPath);
  }
  out.Close();

  char text[640];
  std::snprintf(text, sizeof text,
                "#Camera Information Header\r\nRecord Rate(fps) : %.9g\r\nShutter Speed(s) : "
                "1/%.9g\r\nTotal Frame : %lld\r\nStart Frame : 0\r\nImage Width : %u\r\nImage "
                "Height : %u\r\nColor Type : Mono\r\nColor Bit : %d\r\nFile Format : MRaw\r\n"
                "EffectiveBit Depth : %d\r\nEffectiveBit Side : Lower\r\nComment Text : written "
                "by frfcam\r\nEND\r\n",
                setup.fps, setup.fps, static_cast<long long>(setup.frames), setup.width,
                setup.height, setup.bits, setup.bits);
  std::string why;
  if (!formats::WriteFileWhole(cihPath, text, &why)) return Fail(error, cihPath + ": " + why);
  return true;
}

}  // namespace frfcam::camera
