// MRAW recordings written here from the format's description (headers as
// text or XML, codes packed by a writer of our own) read back code for code.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "camera/camera_test_util.h"
#include "support/test_support.h"

namespace frfcam::camera {
namespace {

using test_util::Save;

struct Recording {
  unsigned width = 7, height = 3;  // an odd pixel count
  int frames = 3, color_bit = 12, effective = 12;
  bool high = false;
  bool padded = false;      // 12-bit frames each padded to a whole byte
  bool big_endian = false;  // 16-bit words
  std::string extra;        // more header lines
};

// The code of pixel i of frame f, below 2^bits.
std::uint16_t Code(const Recording& r, int f, std::size_t i) {
  return static_cast<std::uint16_t>((f * 977 + i * 331 + 5) % (1u << r.effective));
}

std::string Cih(const Recording& r) {
  return "#Camera Information Header\r\nRecord Rate(fps) : 20000\r\nStart Frame : -10\r\n"
         "Total Frame : " +
         std::to_string(r.frames) + "\r\nImage Width : " + std::to_string(r.width) +
         "\r\nImage Height : " + std::to_string(r.height) +
         "\r\nColor Type : Mono\r\nColor Bit : " + std::to_string(r.color_bit) +
         "\r\nFile Format : MRaw\r\nEffectiveBit Depth : " + std::to_string(r.effective) +
         "\r\nEffectiveBit Side : " + (r.high ? "Higher" : "Lower") + "\r\n" + r.extra + "END\r\n";
}

// 8 bits a byte, 12 bits MSB first as one stream, 16 bits little-endian
// (or big-endian).
std::string Data(const Recording& r) {
  std::string out;
  unsigned acc = 0, held = 0;
  for (int f = 0; f < r.frames; ++f) {
    for (std::size_t i = 0; i < std::size_t{r.width} * r.height; ++i) {
      const unsigned c = Code(r, f, i) << (r.high ? r.color_bit - r.effective : 0);
      if (r.color_bit == 16) {
        out += static_cast<char>(r.big_endian ? c >> 8 : c & 255);
        out += static_cast<char>(r.big_endian ? c & 255 : c >> 8);
        continue;
      }
      acc = acc << r.color_bit | c;
      for (held += r.color_bit; held >= 8; held -= 8) out += static_cast<char>(acc >> (held - 8));
      acc &= (1u << held) - 1;
    }
    if (held && (r.padded || f + 1 == r.frames)) {
      out += static_cast<char>(acc << (8 - held));
      acc = held = 0;
    }
  }
  return out;
}

void ExpectFrames(VideoSource& s, const Recording& r) {
  for (int f = 0; f < r.frames; ++f) {
    test_util::ExpectFrame(s, f,
                           [&](unsigned x, unsigned y) { return Code(r, f, y * r.width + x); });
  }
}

TEST(Mraw, ReadsEveryDepthAndSideCodeForCode) {
  test::ScratchDir dir;
  std::vector<Recording> cases(9);
  cases[0].color_bit = cases[0].effective = 8;
  cases[1].frames = 1;
  cases[2].effective = 10, cases[2].high = true, cases[2].width = 8;
  cases[3].color_bit = 16;
  cases[4].color_bit = 16, cases[4].high = true, cases[4].extra = "Save Step : 4\r\n";
  cases[5].color_bit = cases[5].effective = 16;
  cases[6].padded = true;
  // Big-endian words, told apart by the bits the camera leaves clear.
  cases[7].color_bit = 16, cases[7].big_endian = true;
  cases[8].color_bit = 16, cases[8].effective = 10, cases[8].high = true;
  cases[8].big_endian = true;
  for (std::size_t k = 0; k < cases.size(); ++k) {
    SCOPED_TRACE(k);
    const Recording& r = cases[k];
    const std::string stem = dir.file("rec" + std::to_string(k));
    Save(stem + ".cih", Cih(r));
    Save(stem + ".mraw", Data(r));
    std::string error;
    // Named by either file.
    auto s = OpenMraw(stem + (k % 2 ? ".mraw" : ".cih"), &error);
    ASSERT_TRUE(s) << error;
    const SourceInfo& i = s->info();
    EXPECT_EQ(std::tie(i.format, i.width, i.height, i.frames, i.bits, i.fps),
              std::make_tuple("MRAW", r.width, r.height, std::int64_t{r.frames}, r.effective,
                              r.extra.empty() ? 20000.0 : 5000.0));
    EXPECT_EQ(i.notes.find("big-endian") != std::string::npos, r.big_endian);
    ExpectFrames(*s, r);
  }
}

TEST(Mraw, ReadsCihxHeaders) {
  test::ScratchDir dir;
  Recording r;
  r.effective = 11, r.high = true, r.frames = 4;
  const std::string xml =
      std::string("\x01\x00\x7f\xff", 4) +
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?><cih><!-- <cih> --><fileFormatVersion>1"
      "</fileFormatVersion><recordInfo><recordRate>1000</recordRate></recordInfo><frameInfo>"
      "<totalFrame>4</totalFrame><startFrame>0</startFrame></frameInfo><imageDataInfo>"
      "<resolution><width>7</width><height>3</height></resolution><colorInfo><type>Mono</type>"
      "<bit>12</bit></colorInfo><effectiveBit><depth>11</depth><side>Higher</side>"
      "</effectiveBit></imageDataInfo><imageFileInfo><fileFormat>MRaw</fileFormat>"
      "</imageFileInfo></cih>";
  Save(dir.file("x.cihx"), xml);
  Save(dir.file("x.mraw"), Data(r));
  std::string error;
  auto s = OpenMraw(dir.file("x.mraw"), &error);
  ASSERT_TRUE(s) << error;
  EXPECT_EQ(s->info().fps, 1000.0);
  EXPECT_EQ(s->info().bits, 11);
  ExpectFrames(*s, r);
  Save(dir.file("x.cihx"), xml.substr(0, xml.size() - 20));
  EXPECT_FALSE(OpenMraw(dir.file("x.cihx"), &error));
  EXPECT_NE(error.find("breaks off"), std::string::npos) << error;
}

// Each damage gives one line that names the file and says what is wrong.
TEST(Mraw, RefusesDamagedRecordingsInOneLine) {
  test::ScratchDir dir;
  Recording r;
  const auto refuse = [&](const std::string& header, const std::string& data,
                          const std::string& what) {
    Save(dir.file("d.cih"), header);
    std::filesystem::remove(dir.file("d.mraw"));
    if (!data.empty()) Save(dir.file("d.mraw"), data);
    std::string error;
    EXPECT_FALSE(OpenMraw(dir.file("d.cih"), &error)) << what;
    test_util::ExpectOneLine(error, {what, dir.file("d.")});
  };
  const std::string data = Data(r);
  refuse(Cih(r), data.substr(0, data.size() - 1), "claims 3 frames");
  refuse(Cih(r), "", "is missing");
  Recording empty = r;
  empty.width = empty.height = 0;
  refuse(Cih(empty), data, "0x0");
  Recording colour = r;
  colour.color_bit = 24;
  refuse(Cih(colour), data, "colour");
  refuse("Color Bit : 8\nImage Width : 99999999\nEND\n", data, "image width");

  // A file that shrinks after opening fails its frames, not the process.
  FRFCAM_SKIP_ON_WINDOWS(
      "removing or cutting a file another object holds open (Windows refuses it)");
  Save(dir.file("d.cih"), Cih(r));
  Save(dir.file("d.mraw"), data);
  std::string error;
  auto s = OpenMraw(dir.file("d.cih"), &error);
  ASSERT_TRUE(s) << error;
  std::filesystem::resize_file(dir.file("d.mraw"), data.size() / 2);
  std::vector<std::uint16_t> samples(r.width * r.height);
  EXPECT_TRUE(s->ReadFrame(0, samples.data(), &error)) << error;
  EXPECT_FALSE(s->ReadFrame(2, samples.data(), &error));
  EXPECT_NE(error.find("frame 2"), std::string::npos) << error;
  EXPECT_FALSE(s->ReadFrame(3, samples.data(), &error));
}

}  // namespace
}  // namespace frfcam::camera
