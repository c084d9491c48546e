// Video files through FFmpeg's libraries: the best video stream of any
// container they demux, decoded in presentation order, as grey samples.
//
// Grey is the stored luma code for YUV and grey formats (no range
// conversion) and the rounded mean of the three channel codes for RGB ones;
// bits is the format's component depth.
//
// Frame count: for intra-only codecs (raw video, FFV1, MJPEG, PNG ...) each
// non-empty packet of the stream is one picture, so open demuxes the file
// once and counts packets, decoding nothing. Other codecs may reorder
// (B-frames), hold back or drop pictures, so open decodes the stream once
// and counts what the decoder gives: exact whatever the timestamps say,
// variable frame rate included. Either way the container's own estimate is
// never used.
//
// Reading: increasing frames decode on from where the last read stopped; a
// frame before the current one reopens the file and decodes from the start.
#include "camera/video_source.h"

#if defined(FRFCAM_HAVE_FFMPEG)

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

#include <bit>
#include <cstring>
#include <mutex>
#include <vector>

#include "platform/platform.h"

namespace frfcam::camera {
namespace {

// Larger pictures than this are refused before the decoder allocates them.
constexpr std::int64_t kMaxPixels = std::int64_t{1} << 27;
// av_read_frame asking again without progress this often means a stall.
constexpr int kMaxRetries = 1000;

std::string AvError(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, text, sizeof text);
  return text;
}

void QuietFfmpeg() {
  static std::once_flag once;
  std::call_once(once, [] { av_log_set_level(AV_LOG_QUIET); });
}

struct FormatCloser {
  void operator()(AVFormatContext* c) const { avformat_close_input(&c); }
};
struct CodecFreer {
  void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct PacketFreer {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct IoCloser {
  void operator()(AVIOContext* io) const {
    av_freep(&io->buffer);
    avio_context_free(&io);
  }
};

// FFmpeg's reads and seeks on a platform::File.
struct FileInput {
  platform::File file;
  std::uint64_t pos = 0;

  static int Read(void* opaque, std::uint8_t* buf, int size) {
    auto* in = static_cast<FileInput*>(opaque);
    const std::size_t n = in->file.ReadAt(in->pos, buf, static_cast<std::size_t>(size));
    in->pos += n;
    return n == 0 ? AVERROR_EOF : static_cast<int>(n);
  }
  static std::int64_t Seek(void* opaque, std::int64_t offset, int whence) {
    auto* in = static_cast<FileInput*>(opaque);
    std::uint64_t size = 0;
    const bool sized = in->file.Size(&size);
    whence &= ~AVSEEK_FORCE;
    if (whence == AVSEEK_SIZE) return sized ? static_cast<std::int64_t>(size) : AVERROR(ENOSYS);
    std::int64_t base = 0;
    if (whence == SEEK_CUR) {
      base = static_cast<std::int64_t>(in->pos);
    } else if (whence == SEEK_END) {
      if (!sized) return AVERROR(ENOSYS);
      base = static_cast<std::int64_t>(size);
    } else if (whence != SEEK_SET) {
      return AVERROR(EINVAL);
    }
    if (offset > INT64_MAX - base || base + offset < 0) return AVERROR(EINVAL);
    in->pos = static_cast<std::uint64_t>(base + offset);
    return base + offset;
  }
};
struct FrameFreer {
  void operator()(AVFrame* f) const { av_frame_free(&f); }
};

// The file is the recording: playlists, references and image sequences that
// would open other files (or devices, or the network) are refused.
int RefuseOtherFiles(AVFormatContext*, AVIOContext**, const char*, int, AVDictionary**) {
  return AVERROR(EPERM);
}

// How a frame's pixels become grey samples, settled once from the first
// frame's pixel format.
struct GreyRule {
  const AVPixFmtDescriptor* desc = nullptr;
  bool rgb = false;      // mean of components 0..2 (R, G, B)
  bool palette = false;  // pal8: the mean of the palette entry's channels
  bool invert = false;   // monowhite stores 1 for black
  int bits = 8;
};

// The rule for `format`, or false with the reason.
bool RuleFor(AVPixelFormat format, GreyRule* rule, std::string* why) {
  const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(format);
  if (d == nullptr) {
    *why = "the decoder gives no known pixel format";
    return false;
  }
  const std::string name = d->name;
  rule->desc = d;
  if ((d->flags & AV_PIX_FMT_FLAG_HWACCEL) != 0 || (d->flags & AV_PIX_FMT_FLAG_FLOAT) != 0 ||
      (d->flags & AV_PIX_FMT_FLAG_BAYER) != 0 || format == AV_PIX_FMT_XYZ12LE ||
      format == AV_PIX_FMT_XYZ12BE || d->nb_components == 0) {
    *why = "pixel format " + name + " is not read (hardware, float, Bayer or XYZ)";
    return false;
  }
  if ((d->flags & AV_PIX_FMT_FLAG_PAL) != 0) {
    if (format != AV_PIX_FMT_PAL8) {
      *why = "pixel format " + name + " is not read";
      return false;
    }
    rule->palette = true;
    rule->bits = 8;
    return true;
  }
  rule->rgb = (d->flags & AV_PIX_FMT_FLAG_RGB) != 0;
  rule->invert = format == AV_PIX_FMT_MONOWHITE;
  rule->bits = d->comp[0].depth;
  if (rule->rgb) {
    // A mean of codes of different depths (RGB565) would mean nothing.
    if (d->nb_components < 3 || d->comp[1].depth != rule->bits || d->comp[2].depth != rule->bits) {
      *why = "pixel format " + name + " has colour channels of unequal depth";
      return false;
    }
  }
  if (rule->bits < 1 || rule->bits > 16) {
    *why = "pixel format " + name + " has " + std::to_string(rule->bits) + "-bit samples";
    return false;
  }
  return true;
}

// One component of row y into `out` (w values): direct loops for whole
// bytes and little-endian 16-bit words, FFmpeg's generic line reader for
// bit fields, big-endian words and bit streams.
void ReadComponent(const AVFrame& frame, const AVPixFmtDescriptor& d, int c, int y,
                   std::uint16_t* out) {
  const AVComponentDescriptor& comp = d.comp[c];
  const int w = frame.width;
  const std::uint8_t* row =
      frame.data[comp.plane] + static_cast<std::ptrdiff_t>(frame.linesize[comp.plane]) *
                                   (c == 0 || c == 3 ? y : (y >> d.log2_chroma_h));
  const bool bitstream = (d.flags & AV_PIX_FMT_FLAG_BITSTREAM) != 0;
  if (!bitstream && comp.depth == 8 && comp.shift == 0) {
    const std::uint8_t* p = row + comp.offset;
    for (int x = 0; x < w; ++x) out[x] = p[static_cast<std::ptrdiff_t>(x) * comp.step];
    return;
  }
  if (!bitstream && comp.depth > 8 && comp.step == 2 && comp.offset % 2 == 0 &&
      (d.flags & AV_PIX_FMT_FLAG_BE) == 0 && std::endian::native == std::endian::little) {
    const std::uint16_t mask = static_cast<std::uint16_t>((1u << comp.depth) - 1);
    const std::uint8_t* p = row + comp.offset;
    for (int x = 0; x < w; ++x) {
      std::uint16_t v;
      std::memcpy(&v, p + 2 * static_cast<std::ptrdiff_t>(x), 2);
      out[x] = static_cast<std::uint16_t>((v >> comp.shift) & mask);
    }
    return;
  }
  const std::uint8_t* data[4] = {frame.data[0], frame.data[1], frame.data[2], frame.data[3]};
  av_read_image_line2(out, data, frame.linesize, &d, 0, y, c, w, 0, 2);
}

// The grey samples of `frame` under `rule` into `samples` (raster order).
void ToGrey(const AVFrame& frame, const GreyRule& rule, std::uint16_t* samples) {
  const int w = frame.width;
  const std::size_t width = static_cast<std::size_t>(w);
  std::vector<std::uint16_t> channel(rule.rgb ? 3 * width : 0);
  for (int y = 0; y < frame.height; ++y) {
    std::uint16_t* out = samples + static_cast<std::size_t>(y) * width;
    if (rule.palette) {
      const std::uint8_t* index =
          frame.data[0] + static_cast<std::ptrdiff_t>(frame.linesize[0]) * y;
      const std::uint8_t* pal = frame.data[1];  // 256 entries, native-endian 0xAARRGGBB
      for (int x = 0; x < w; ++x) {
        std::uint32_t argb;
        std::memcpy(&argb, pal + 4 * index[x], 4);
        const unsigned sum = ((argb >> 16) & 0xFF) + ((argb >> 8) & 0xFF) + (argb & 0xFF);
        out[x] = static_cast<std::uint16_t>((sum + 1) / 3);
      }
    } else if (rule.rgb) {
      for (int c = 0; c < 3; ++c) ReadComponent(frame, *rule.desc, c, y, &channel[c * width]);
      // A third of an integer sum is never exactly half way, so rounding
      // half up is rounding (sum + 1) / 3 down.
      for (std::size_t x = 0; x < width; ++x) {
        const unsigned sum = unsigned{channel[x]} + channel[width + x] + channel[2 * width + x];
        out[x] = static_cast<std::uint16_t>((sum + 1) / 3);
      }
    } else {
      ReadComponent(frame, *rule.desc, 0, y, out);
      if (rule.invert) {
        for (int x = 0; x < w; ++x) out[x] ^= 1;
      }
    }
  }
}

class FfmpegSource : public VideoSource {
 public:
  explicit FfmpegSource(std::string path) : path_(std::move(path)) {}

  // Opens the file, counts its frames and settles the grey rule from the
  // first frame; false with the reason (without the file name).
  bool Open(std::string* why) {
    if (!Reopen(why)) return false;
    const AVCodecDescriptor* cd = avcodec_descriptor_get(dec_->codec_id);
    const bool intra_only = cd != nullptr && (cd->props & AV_CODEC_PROP_INTRA_ONLY) != 0;
    // Codecs that may be either way (H.264, JPEG 2000, JPEG-LS) do not say
    // in their headers which way a file went: lossy unless only lossless.
    info_.lossy = cd == nullptr || (cd->props & AV_CODEC_PROP_LOSSLESS) == 0 ||
                  (cd->props & AV_CODEC_PROP_LOSSY) != 0;
    info_.format = std::string(fmt_->iformat->name) + "/" + avcodec_get_name(dec_->codec_id);
    const AVStream* st = fmt_->streams[stream_];
    const AVRational rate = st->avg_frame_rate.num > 0 && st->avg_frame_rate.den > 0
                                ? st->avg_frame_rate
                                : st->r_frame_rate;
    info_.fps = rate.num > 0 && rate.den > 0 ? av_q2d(rate) : 0.0;

    // The first frame settles the picture; decoding it also proves the
    // decoder works on this file.
    int got = DecodeNext(why);
    if (got <= 0) {
      if (got == 0) *why = "the video stream has no frames";
      return false;
    }
    width_ = frame_->width;
    height_ = frame_->height;
    pix_fmt_ = frame_->format;
    if (width_ <= 0 || height_ <= 0) {
      *why = "the video has no picture size";
      return false;
    }
    if (!RuleFor(static_cast<AVPixelFormat>(pix_fmt_), &rule_, why)) return false;
    info_.width = static_cast<unsigned>(width_);
    info_.height = static_cast<unsigned>(height_);
    info_.bits = rule_.bits;
    info_.notes = Notes(*frame_);

    std::int64_t frames = 1;
    if (intra_only) {
      if (!Reopen(why) || !CountPackets(&frames, why)) return false;
    } else {
      while ((got = DecodeNext(why)) > 0) ++frames;
      if (got < 0) {
        *why = "frame " + std::to_string(frames) + ": " + *why;
        return false;
      }
    }
    info_.frames = frames;
    // Leave the file at frame 0 for the usual first read.
    if (!Reopen(why)) return false;
    if (DecodeNext(why) <= 0) {
      *why = "the first frame is gone on reopening";
      return false;
    }
    current_ = 0;
    return true;
  }

  bool ReadFrame(std::int64_t f, std::uint16_t* samples, std::string* error) override {
    auto fail = [&](const std::string& what) {
      *error = path_ + ": frame " + std::to_string(f) + ": " + what;
      return false;
    };
    if (f < 0 || f >= info_.frames) {
      return fail("out of range (" + std::to_string(info_.frames) + " frames)");
    }
    std::string why;
    if (f < current_ || failed_) {
      failed_ = true;
      if (!Reopen(&why)) return fail(why);
      failed_ = false;
    }
    while (current_ < f) {
      const int got = DecodeNext(&why);
      if (got <= 0) {
        failed_ = true;
        return fail(got == 0 ? "the stream ends after " + std::to_string(current_ + 1) + " frames"
                             : why);
      }
      ++current_;
    }
    if (frame_->width != width_ || frame_->height != height_ || frame_->format != pix_fmt_) {
      return fail("the picture changes size or pixel format");
    }
    ToGrey(*frame_, rule_, samples);
    return true;
  }

 private:
  // Opens the file afresh with the decoder before its first frame.
  bool Reopen(std::string* why) {
    dec_.reset();
    fmt_.reset();
    io_.reset();
    current_ = -1;
    flushed_ = false;
    // Through platform::File: a FIFO or a device, which would block or never
    // end, is refused.
    if (!input_.file.Open(path_, platform::File::Mode::kRead)) {
      *why = "cannot be opened, or is not a regular file";
      return false;
    }
    input_.pos = 0;
    constexpr int kBuffer = 1 << 16;
    auto* buffer = static_cast<unsigned char*>(av_malloc(kBuffer));
    AVIOContext* io = buffer == nullptr
                          ? nullptr
                          : avio_alloc_context(buffer, kBuffer, 0, &input_, FileInput::Read,
                                               nullptr, FileInput::Seek);
    if (io == nullptr) {
      av_free(buffer);
      *why = "out of memory";
      return false;
    }
    io_.reset(io);
    AVFormatContext* raw = avformat_alloc_context();
    if (raw == nullptr) {
      *why = "out of memory";
      return false;
    }
    raw->pb = io_.get();
    raw->io_open = RefuseOtherFiles;
    AVDictionary* options = nullptr;
    av_dict_set(&options, "probesize", "5000000", 0);
    av_dict_set(&options, "analyzeduration", "5000000", 0);
    // The name only helps probing by extension; every read goes through io_.
    int r = avformat_open_input(&raw, path_.c_str(), nullptr, &options);
    av_dict_free(&options);
    if (r < 0) {
      *why = "not a video file FFmpeg reads (" + AvError(r) + ")";
      return false;  // avformat_open_input freed the context
    }
    fmt_.reset(raw);
    r = avformat_find_stream_info(fmt_.get(), nullptr);
    if (r < 0) {
      *why = "cannot read the streams (" + AvError(r) + ")";
      return false;
    }
    const AVCodec* codec = nullptr;
    stream_ = av_find_best_stream(fmt_.get(), AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    if (stream_ == AVERROR_STREAM_NOT_FOUND) {
      *why = "has no video stream";
      return false;
    }
    if (stream_ < 0 || codec == nullptr) {
      const AVCodecParameters* par = fmt_->streams[0]->codecpar;
      for (unsigned i = 0; i < fmt_->nb_streams; ++i) {
        if (fmt_->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
          par = fmt_->streams[i]->codecpar;
          break;
        }
      }
      *why = std::string("no decoder in this FFmpeg for the video codec ") +
             avcodec_get_name(par->codec_id);
      return false;
    }
    for (unsigned i = 0; i < fmt_->nb_streams; ++i) {
      if (static_cast<int>(i) != stream_) fmt_->streams[i]->discard = AVDISCARD_ALL;
    }
    dec_.reset(avcodec_alloc_context3(codec));
    if (!pkt_) pkt_.reset(av_packet_alloc());
    if (!frame_) frame_.reset(av_frame_alloc());
    if (!dec_ || !pkt_ || !frame_) {
      *why = "out of memory";
      return false;
    }
    r = avcodec_parameters_to_context(dec_.get(), fmt_->streams[stream_]->codecpar);
    if (r >= 0) {
      dec_->max_pixels = kMaxPixels;
      dec_->thread_count = 0;  // as many as the machine has
      dec_->pkt_timebase = fmt_->streams[stream_]->time_base;
      r = avcodec_open2(dec_.get(), codec, nullptr);
    }
    if (r < 0) {
      *why = std::string("cannot start the ") + codec->name + " decoder (" + AvError(r) + ")";
      return false;
    }
    return true;
  }

  // The next frame in presentation order into frame_: 1 when there is one, 0
  // at the end of the stream, -1 with the reason on an error.
  int DecodeNext(std::string* why) {
    int retries = 0;
    for (;;) {
      int r = avcodec_receive_frame(dec_.get(), frame_.get());
      if (r == 0) return 1;
      if (r == AVERROR_EOF) return 0;
      if (r != AVERROR(EAGAIN)) {
        *why = "the decoder fails (" + AvError(r) + ")";
        return -1;
      }
      if (flushed_) {
        *why = "the decoder wants data after the end of the stream";
        return -1;
      }
      r = av_read_frame(fmt_.get(), pkt_.get());
      if (r == AVERROR(EAGAIN)) {
        if (++retries > kMaxRetries) {
          *why = "the file stalls";
          return -1;
        }
        continue;
      }
      if (r < 0) {
        // The end, or damage that ends the stream here: drain the decoder.
        flushed_ = true;
        avcodec_send_packet(dec_.get(), nullptr);
        continue;
      }
      // An empty packet would drain the decoder; AVI writes them for
      // dropped frames, which hold no picture.
      if (pkt_->stream_index == stream_ && pkt_->size > 0 &&
          (pkt_->flags & AV_PKT_FLAG_DISCARD) == 0) {
        r = avcodec_send_packet(dec_.get(), pkt_.get());
        if (r < 0) {
          av_packet_unref(pkt_.get());
          *why = "the decoder refuses the data, damaged or cut short (" + AvError(r) + ")";
          return -1;
        }
      }
      av_packet_unref(pkt_.get());
    }
  }

  // Counts the pictures of an intra-only stream, from a fresh open: its
  // non-empty packets.
  bool CountPackets(std::int64_t* frames, std::string* why) {
    std::int64_t n = 0;
    int retries = 0;
    for (;;) {
      const int r = av_read_frame(fmt_.get(), pkt_.get());
      if (r == AVERROR(EAGAIN)) {
        if (++retries > kMaxRetries) {
          *why = "the file stalls";
          return false;
        }
        continue;
      }
      if (r < 0) break;
      if (pkt_->stream_index == stream_ && pkt_->size > 0 &&
          (pkt_->flags & AV_PKT_FLAG_DISCARD) == 0) {
        ++n;
      }
      av_packet_unref(pkt_.get());
    }
    *frames = n;
    return true;
  }

  // What the reader did to the codes, for SourceInfo::notes.
  std::string Notes(const AVFrame& frame) const {
    if (rule_.palette) return "grey = mean of the palette entry's R, G, B, rounded";
    if (rule_.rgb) return "grey = mean of R, G, B codes, rounded half up";
    const bool grey = rule_.desc->nb_components < 3;
    switch (frame.color_range) {
      case AVCOL_RANGE_JPEG:
        return "grey = luma codes as stored (full range)";
      case AVCOL_RANGE_MPEG:
        return "grey = luma codes as stored (limited range, black at 16 << (bits - 8))";
      default:
        return grey ? "" : "grey = luma codes as stored (range not stated)";
    }
  }

  std::string path_;
  FileInput input_;
  std::unique_ptr<AVIOContext, IoCloser> io_;  // outlives fmt_, which reads through it
  std::unique_ptr<AVFormatContext, FormatCloser> fmt_;
  std::unique_ptr<AVCodecContext, CodecFreer> dec_;
  std::unique_ptr<AVPacket, PacketFreer> pkt_;
  std::unique_ptr<AVFrame, FrameFreer> frame_;
  int stream_ = -1;
  bool flushed_ = false;       // the decoder has been told the stream ended
  bool failed_ = false;        // the last read failed: the next one starts afresh
  std::int64_t current_ = -1;  // the frame in frame_, -1 before the first
  int width_ = 0, height_ = 0, pix_fmt_ = -1;
  GreyRule rule_;
};

}  // namespace

std::unique_ptr<VideoSource> OpenFfmpeg(const std::string& path, std::string* error) {
  QuietFfmpeg();
  auto source = std::make_unique<FfmpegSource>(path);
  std::string why;
  if (!source->Open(&why)) {
    *error = path + ": " + why;
    return nullptr;
  }
  return source;
}

}  // namespace frfcam::camera

#else  // no FFmpeg in this build

namespace frfcam::camera {

std::unique_ptr<VideoSource> OpenFfmpeg(const std::string& path, std::string* error) {
  *error = path + ": this build of frfcam reads no video files through FFmpeg";
  return nullptr;
}

}  // namespace frfcam::camera

#endif
