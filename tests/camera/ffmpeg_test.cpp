// The FFmpeg reader against videos encoded here from known frames: exact
// samples for lossless codecs, the grey rule per format, frame count and
// rate, B-frame order, and one-line refusals of damaged files.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <tuple>
#include <vector>

#include "camera/camera_test_util.h"
#include "support/test_support.h"

#if defined(FRFCAM_HAVE_FFMPEG)
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/pixdesc.h>
}
#endif

namespace frfcam::camera {
namespace {

using test::ScratchDir;
using test_util::ExpectOneLine;

#if defined(FRFCAM_HAVE_FFMPEG)

struct Video {
  const char* container;  // FFmpeg's muxer name
  AVCodecID codec;
  AVPixelFormat format;
  int width, height, frames;
  int fps = 25;
  int b_frames = 0;
};

// Component c of pixel (x, y) of frame f, before masking to the depth.
using Pattern = std::function<unsigned(int f, int x, int y, int c)>;

unsigned Mixed(int f, int x, int y, int c) {
  return static_cast<unsigned>(x * 7919 + y * 104729 + f * 1237 + c * 977) ^
         static_cast<unsigned>(x * y * 31);
}

// Encodes `v` into `path` with frames from `pattern`; false when this FFmpeg
// lacks the encoder, the format or the muxer.
bool Encode(const std::string& path, const Video& v, const Pattern& pattern) {
  const AVCodec* codec = avcodec_find_encoder(v.codec);
  AVFormatContext* oc = nullptr;
  if (codec == nullptr ||
      avformat_alloc_output_context2(&oc, nullptr, v.container, path.c_str()) < 0) {
    return false;
  }
  AVCodecContext* enc = avcodec_alloc_context3(codec);
  AVStream* st = avformat_new_stream(oc, nullptr);
  AVFrame* frame = av_frame_alloc();
  AVPacket* pkt = av_packet_alloc();
  enc->width = v.width;
  enc->height = v.height;
  enc->pix_fmt = v.format;
  enc->time_base = {1, v.fps};
  enc->framerate = {v.fps, 1};
  enc->max_b_frames = v.b_frames;
  enc->gop_size = v.b_frames > 0 ? 6 : 1;
  enc->strict_std_compliance = FF_COMPLIANCE_EXPERIMENTAL;
  if (v.codec == AV_CODEC_ID_MJPEG) {
    enc->flags |= AV_CODEC_FLAG_QSCALE;
    enc->global_quality = FF_QP2LAMBDA * 2;
  }
  if ((oc->oformat->flags & AVFMT_GLOBALHEADER) != 0) enc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  bool ok = avcodec_open2(enc, codec, nullptr) >= 0 &&
            avcodec_parameters_from_context(st->codecpar, enc) >= 0;
  st->time_base = enc->time_base;
  st->avg_frame_rate = enc->framerate;
  ok = ok && avio_open(&oc->pb, path.c_str(), AVIO_FLAG_WRITE) >= 0 &&
       avformat_write_header(oc, nullptr) >= 0;
  frame->format = v.format;
  frame->width = v.width;
  frame->height = v.height;
  ok = ok && av_frame_get_buffer(frame, 0) >= 0;
  const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(v.format);
  auto drain = [&] {
    while (avcodec_receive_packet(enc, pkt) == 0) {
      av_packet_rescale_ts(pkt, enc->time_base, st->time_base);
      pkt->stream_index = st->index;
      ok = ok && av_interleaved_write_frame(oc, pkt) >= 0;
    }
  };
  std::vector<std::uint16_t> row(static_cast<std::size_t>(v.width));
  for (int f = 0; ok && f < v.frames; ++f) {
    ok = av_frame_make_writable(frame) >= 0;
    // av_write_image_line2 ORs its bits in.
    for (int p = 0; ok && p < 4 && frame->data[p] != nullptr; ++p) {
      const int rows = p == 1 || p == 2 ? AV_CEIL_RSHIFT(v.height, d->log2_chroma_h) : v.height;
      std::memset(frame->data[p], 0, static_cast<std::size_t>(frame->linesize[p]) * rows);
    }
    for (int c = 0; c < d->nb_components; ++c) {
      const bool chroma = c == 1 || c == 2;
      const int cw = chroma ? AV_CEIL_RSHIFT(v.width, d->log2_chroma_w) : v.width;
      const int ch = chroma ? AV_CEIL_RSHIFT(v.height, d->log2_chroma_h) : v.height;
      const unsigned mask = (1u << d->comp[c].depth) - 1;
      for (int y = 0; y < ch; ++y) {
        for (int x = 0; x < cw; ++x)
          row[x] = static_cast<std::uint16_t>(pattern(f, x, y, c) & mask);
        av_write_image_line2(row.data(), frame->data, frame->linesize, d, 0, y, c, cw, 2);
      }
    }
    frame->pts = f;
    ok = ok && avcodec_send_frame(enc, frame) >= 0;
    drain();
  }
  avcodec_send_frame(enc, nullptr);
  drain();
  if (ok) ok = av_write_trailer(oc) >= 0;
  avio_closep(&oc->pb);
  av_packet_free(&pkt);
  av_frame_free(&frame);
  avcodec_free_context(&enc);
  avformat_free_context(oc);
  return ok;
}

// The grey value the reader owes for pixel (x, y) of frame f.
unsigned Expected(const Video& v, const Pattern& pattern, int f, int x, int y) {
  const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(v.format);
  auto comp = [&](int c) { return pattern(f, x, y, c) & ((1u << d->comp[c].depth) - 1); };
  if ((d->flags & AV_PIX_FMT_FLAG_RGB) == 0) return comp(0);
  return (comp(0) + comp(1) + comp(2) + 1) / 3;
}

// Frames of one flat value each, far apart, so that any mix-up of order
// shows through compression noise.
unsigned Flat(int f, int x, int y, int c) {
  if (c > 0) return 128;
  return static_cast<unsigned>(30 + 40 * f + (x + y) % 3);
}

// Every frame forwards, then frame 0 again, which reopens the file: exact for
// lossless codecs, within 6 of flat frames for lossy ones.
TEST(FfmpegSource, VideosReadBackInPresentationOrder) {
  const Video videos[] = {
      {"avi", AV_CODEC_ID_RAWVIDEO, AV_PIX_FMT_GRAY8, 33, 17, 5},
      // FFmpeg's AVI and Matroska muxers cannot store raw 16-bit grey (AVI's
      // reads back as RGB555); its own container can.
      {"nut", AV_CODEC_ID_RAWVIDEO, AV_PIX_FMT_GRAY16LE, 12, 8, 4, 30},
      {"avi", AV_CODEC_ID_RAWVIDEO, AV_PIX_FMT_RGB24, 9, 7, 3},
      {"nut", AV_CODEC_ID_RAWVIDEO, AV_PIX_FMT_RGB48LE, 6, 5, 2},
      {"nut", AV_CODEC_ID_RAWVIDEO, AV_PIX_FMT_GBRP, 6, 5, 2},
      {"matroska", AV_CODEC_ID_FFV1, AV_PIX_FMT_YUV420P, 33, 17, 6, 50},
      {"matroska", AV_CODEC_ID_FFV1, AV_PIX_FMT_GRAY10LE, 16, 9, 3},
      {"matroska", AV_CODEC_ID_FFV1, AV_PIX_FMT_GRAY16LE, 16, 9, 3},
      {"matroska", AV_CODEC_ID_FFV1, AV_PIX_FMT_YUV420P10LE, 10, 6, 1},
      {"avi", AV_CODEC_ID_MJPEG, AV_PIX_FMT_YUVJ420P, 33, 17, 4},
      // B-frames: decoding order differs from presentation order, and the
      // count comes from decoding.
      {"matroska", AV_CODEC_ID_MPEG2VIDEO, AV_PIX_FMT_YUV420P, 32, 16, 5, 25, 2},
  };
  for (const Video& v : videos) {
    const std::string what = std::string(avcodec_get_name(v.codec)) + " " +
                             av_get_pix_fmt_name(v.format) + " in " + v.container;
    SCOPED_TRACE(what);
    const bool lossy = v.codec == AV_CODEC_ID_MJPEG || v.codec == AV_CODEC_ID_MPEG2VIDEO;
    const Pattern pattern = lossy ? Flat : Mixed;
    ScratchDir dir;
    const std::string path = dir.file("video");
    if (!Encode(path, v, pattern)) {
      ADD_FAILURE() << "this FFmpeg cannot write " << what;
      continue;
    }
    std::string error;
    auto source = OpenFfmpeg(path, &error);
    ASSERT_NE(source, nullptr) << error;
    const SourceInfo& info = source->info();
    EXPECT_EQ(std::tie(info.width, info.height, info.frames, info.bits, info.lossy),
              std::make_tuple(unsigned(v.width), unsigned(v.height), std::int64_t(v.frames),
                              av_pix_fmt_desc_get(v.format)->comp[0].depth, lossy));
    EXPECT_DOUBLE_EQ(info.fps, v.fps);
    EXPECT_TRUE(!lossy || info.notes.find("range") != std::string::npos) << info.notes;
    for (int f = 0; f <= v.frames; ++f) {
      test_util::ExpectFrame(
          *source, f % v.frames,
          [&](unsigned x, unsigned y) { return Expected(v, pattern, f % v.frames, x, y); },
          lossy ? 6 : 0);
    }
    std::vector<std::uint16_t> samples(static_cast<std::size_t>(v.width) * v.height);
    EXPECT_FALSE(source->ReadFrame(v.frames, samples.data(), &error));
    ExpectOneLine(error, {path});
  }
}

TEST(FfmpegSource, DamagedFilesGiveOneLine) {
  ScratchDir dir;
  std::string error;
  const Video raw = {"avi", AV_CODEC_ID_RAWVIDEO, AV_PIX_FMT_GRAY8, 64, 32, 6};
  const std::string cut = dir.file("cut.avi");
  ASSERT_TRUE(Encode(cut, raw, Mixed));
  // Cut inside the fifth of six 2 KiB frames, the index at the end gone too:
  // what opens must fail on a read or count fewer frames.
  std::filesystem::resize_file(cut, std::filesystem::file_size(cut) - 3000);
  if (auto source = OpenFfmpeg(cut, &error)) {
    std::vector<std::uint16_t> samples(64 * 32);
    bool failed = false;
    for (std::int64_t f = 0; f < source->info().frames && !failed; ++f) {
      failed = !source->ReadFrame(f, samples.data(), &error);
    }
    EXPECT_TRUE(failed || source->info().frames < raw.frames);
    if (failed) ExpectOneLine(error, {cut});
  } else {
    ExpectOneLine(error, {cut});
  }

  const std::string text = dir.file("notes.avi");
  std::ofstream(text) << "frequency response, not a video\n";
  EXPECT_EQ(OpenFfmpeg(text, &error), nullptr);
  ExpectOneLine(error, {text});

  // An AVI whose codec tag no decoder knows.
  const std::string odd = dir.file("odd.avi");
  ASSERT_TRUE(Encode(odd, {"avi", AV_CODEC_ID_FFV1, AV_PIX_FMT_YUV420P, 16, 8, 2}, Mixed));
  std::string bytes = test::ReadFile(odd);
  for (std::size_t at = bytes.find("FFV1"); at != std::string::npos; at = bytes.find("FFV1", at)) {
    bytes.replace(at, 4, "QZ9X");
  }
  std::ofstream(odd, std::ios::binary) << bytes;
  EXPECT_EQ(OpenFfmpeg(odd, &error), nullptr);
  ExpectOneLine(error, {odd, "decoder"});
}

#else

TEST(FfmpegSource, RefusesWithoutFfmpeg) {
  std::string error;
  EXPECT_EQ(OpenFfmpeg("clip.avi", &error), nullptr);
  EXPECT_NE(error.find("reads no video files through FFmpeg"), std::string::npos) << error;
}

#endif

}  // namespace
}  // namespace frfcam::camera
