#include "view/view_server.h"

#include <httplib.h>

#include <charconv>
#include <cmath>
#include <complex>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <optional>
#include <random>
#include <thread>
#include <vector>

#include "chart_data.h"
#include "command_error.h"
#include "cube_render.h"
#include "cube_state.h"
#include "frfmap/capture_header.h"
#include "frfmap/cube_check.h"
#include "map_image.h"
#include "platform/platform.h"
#include "png_writer.h"
#include "reference_file.h"
#include "view/page_files.h"

namespace frfcam::cli {

namespace {

std::string RandomToken() {
  std::random_device device;
  std::string token;
  char hex[9];
  for (int i = 0; i < 4; ++i) {  // 128 bits
    std::snprintf(hex, sizeof hex, "%08x", static_cast<unsigned>(device()));
    token += hex;
  }
  return token;
}

// A whole decimal number in [lo, hi], nothing before or after it.
bool ParseInt(const std::string& text, long lo, long hi, long* value) {
  const char* end = text.data() + text.size();
  const auto r = std::from_chars(text.data(), end, *value);
  return r.ec == std::errc() && r.ptr == end && !text.empty() && *value >= lo && *value <= hi;
}

bool ParseDouble(const std::string& text, double* value) {
  const char* end = text.data() + text.size();
  const auto r = std::from_chars(text.data(), end, *value);
  return r.ec == std::errc() && r.ptr == end && !text.empty() && std::isfinite(*value);
}

std::string Number(double v) { return JsonNumber(v); }

void Refuse(httplib::Response& res, int status, const std::string& why) {
  res.status = status;
  res.set_content(why + "\n", "text/plain; charset=utf-8");
}

// A whole file of at most `limit` bytes; nullopt when it cannot be read.
std::optional<std::string> ReadWholeFile(const std::string& path, std::uint64_t limit) {
  platform::File f;
  std::uint64_t size = 0;
  if (!f.Open(path, platform::File::Mode::kRead) || !f.Size(&size) || size > limit) {
    return std::nullopt;
  }
  std::string bytes(static_cast<std::size_t>(size), '\0');
  if (f.ReadAt(0, bytes.data(), bytes.size()) != bytes.size()) return std::nullopt;
  return bytes;
}

// A row of modes.csv as `frfcam modes` writes it.
struct ModeRow {
  int mode = 0;
  double frequencyHz = 0.0, damping = 0.0, mpc = 0.0;
  std::string shape;
};

// The rows of `dir`/modes.csv; throws CommandError when it is not there or
// not that table.
std::vector<ModeRow> ReadModesCsv(const std::string& dir) {
  const std::string path = dir + "/modes.csv";
  const auto text = ReadWholeFile(path, 16u << 20);
  if (!text) throw CommandError("--modes " + dir + ": no modes.csv (the output of frfcam modes)");
  std::vector<ModeRow> rows;
  std::size_t at = 0, line = 0;
  while (at < text->size()) {
    std::size_t end = text->find('\n', at);
    if (end == std::string::npos) end = text->size();
    const std::string row = text->substr(at, end - at);
    at = end + 1;
    if (line++ == 0) {
      if (row.rfind("mode,frequency_hz,damping_ratio", 0) != 0) {
        throw CommandError(path + ": not the mode table of frfcam modes");
      }
      continue;
    }
    if (row.empty()) continue;
    ModeRow m;
    char shape[32] = "";
    if (std::sscanf(row.c_str(), "%d,%lf,%lf,%lf,%31[a-z]", &m.mode, &m.frequencyHz, &m.damping,
                    &m.mpc, shape) < 4 ||
        m.mode != static_cast<int>(rows.size()) + 1) {
      throw CommandError(path + ": line " + std::to_string(line) + " is not a mode");
    }
    m.shape = shape;
    rows.push_back(m);
  }
  return rows;
}

// What the viewer serves of a mode, by name: only these files, in the
// modes folder, under names built from the mode's number.
struct ModeFile {
  const char* name;    // in the request: /api/mode/K/NAME
  const char* suffix;  // the file: mode_K SUFFIX
  const char* type;
};
constexpr ModeFile kModeFiles[] = {
    {"shape.png", ".png", "image/png"},
    {"shape.gif", ".gif", "image/gif"},
    {"shape.npy", ".npy", "application/octet-stream"},
    {"disp.png", "_disp.png", "image/png"},
    {"disp.npy", "_disp.npy", "application/octet-stream"},
    {"motion.gif", "_motion.gif", "image/gif"},
};

}  // namespace

bool SameToken(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  unsigned char diff = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    diff |= static_cast<unsigned char>(a[i] ^ b[i]);
  }
  return diff == 0;
}

struct ViewServer::State {
  ViewOptions options;
  frfmap::CaptureHeader header;
  unsigned width = 0, height = 0, bins = 0;
  int frames = 0;
  double fps = 0.0;
  std::vector<float> reference;
  std::vector<std::complex<double>> referenceSpectrum;  // scaled 1/F like the cube
  std::string token;
  std::string recordChart;  // JSON, when a record was given
  std::vector<RecordMode> recordModes;
  // The capture's mean spectrum, without and with the reference, once asked.
  std::mutex meanMutex;
  std::string meanSpectrum[2];
  httplib::Server server;
  std::thread thread;

  // Objects open on the cube, without and with the reference, lent to one
  // request at a time: at most one per server thread.
  std::mutex mutex;
  std::vector<std::unique_ptr<Calcs>> idle[2];

  class Lease {
   public:
    Lease(State& s, bool withReference) : s_(s), ref_(withReference) {
      {
        std::lock_guard<std::mutex> lock(s_.mutex);
        if (!s_.idle[ref_].empty()) {
          calcs_ = std::move(s_.idle[ref_].back());
          s_.idle[ref_].pop_back();
        }
      }
      if (!calcs_) {
        calcs_ = std::make_unique<Calcs>();
        OpenCapture(calcs_->c, s_.options.header);
        if (ref_) {
          SetReference(calcs_->c, s_.reference.data(), static_cast<int>(s_.reference.size()));
        }
      }
    }
    ~Lease() {
      std::lock_guard<std::mutex> lock(s_.mutex);
      s_.idle[ref_].push_back(std::move(calcs_));
    }
    ::FrfMapCalcs* get() const { return calcs_->c; }

   private:
    State& s_;
    bool ref_;
    std::unique_ptr<Calcs> calcs_;
  };

  bool Authorised(const httplib::Request& req) const {
    if (req.has_param("token") && SameToken(req.get_param_value("token"), token)) return true;
    const std::string auth = req.get_header_value("Authorization");
    return auth.rfind("Bearer ", 0) == 0 && SameToken(auth.substr(7), token);
  }

  // The reference flag of a request: absent or 0 off, 1 on (when given).
  bool ReferenceParam(const httplib::Request& req, bool* on, std::string* why) const {
    *on = false;
    if (!req.has_param("reference")) return true;
    long v = 0;
    if (!ParseInt(req.get_param_value("reference"), 0, 1, &v)) {
      *why = "reference must be 0 or 1";
      return false;
    }
    if (v == 1 && reference.empty()) {
      *why = "no reference was given to frfcam view (--reference)";
      return false;
    }
    *on = v == 1;
    return true;
  }

  void Info(httplib::Response& res) const {
    const std::string json = "{\"width\":" + std::to_string(width) +
                             ",\"height\":" + std::to_string(height) +
                             ",\"frames\":" + std::to_string(frames) + ",\"fps\":" + Number(fps) +
                             ",\"bins\":" + std::to_string(bins) +
                             ",\"reference\":" + (reference.empty() ? "false" : "true") +
                             ",\"modes\":" + (options.modesDir.empty() ? "false" : "true") +
                             ",\"record\":" + (options.record.empty() ? "false" : "true") + "}";
    res.set_content(json, "application/json");
  }

  void Map(const httplib::Request& req, httplib::Response& res) {
    long bin = 0;
    if (!req.has_param("bin") ||
        !ParseInt(req.get_param_value("bin"), 0, static_cast<long>(bins) - 1, &bin)) {
      return Refuse(res, 400, "bin must be a whole number in 0.." + std::to_string(bins - 1));
    }
    double gain = 0.0;
    if (req.has_param("gain") &&
        (!ParseDouble(req.get_param_value("gain"), &gain) || !(gain > 0.0) || gain > 1e30)) {
      return Refuse(res, 400, "gain must be a positive number");
    }
    bool withReference = false;
    std::string why;
    if (!ReferenceParam(req, &withReference, &why)) return Refuse(res, 400, why);
    // The library's read gives no word for a cube file that is gone, so the
    // cube is checked first (a few file sizes and the completion record).
    if (frfmap::CheckCube(options.header, header, &why) != frfmap::CubeState::kReady) {
      return Refuse(res, 409, why);
    }
    Lease lease(*this, withReference);
    const MapImage image =
        ComputeMap(lease.get(), static_cast<int>(bin), static_cast<float>(gain), -1, width, height);
    res.set_header("X-Frfcam-Gain", Number(image.gain));
    res.set_content(GrayPng(image.pixels.data(), width, height), "image/png");
  }

  void Spectrum(const httplib::Request& req, httplib::Response& res) {
    long x = 0, y = 0;
    if (!req.has_param("x") || !req.has_param("y") ||
        !ParseInt(req.get_param_value("x"), 0, static_cast<long>(width) - 1, &x) ||
        !ParseInt(req.get_param_value("y"), 0, static_cast<long>(height) - 1, &y)) {
      return Refuse(res, 400,
                    "x and y must be whole numbers within the " + std::to_string(width) + "x" +
                        std::to_string(height) + " image");
    }
    bool withReference = false;
    std::string why;
    if (!ReferenceParam(req, &withReference, &why)) return Refuse(res, 400, why);
    std::vector<std::complex<float>> values(bins);
    if (!ReadCubeSpectrum(options.header, header, static_cast<std::uint32_t>(x),
                          static_cast<std::uint32_t>(y), values.data(), &why)) {
      return Refuse(res, 409, why);
    }
    const std::string f = FrequencyArray();
    std::string re = "[", im = "[";
    for (unsigned k = 0; k < bins; ++k) {
      std::complex<double> v(values[k].real(), values[k].imag());
      if (withReference) v /= referenceSpectrum[k];
      const char* sep = k + 1 < bins ? "," : "]";
      re += Number(v.real()) + sep;
      im += Number(v.imag()) + sep;
    }
    res.set_content("{\"frequency_hz\":" + f + ",\"re\":" + re + ",\"im\":" + im + "}",
                    "application/json");
  }

  std::string FrequencyArray() const {
    std::string f = "[";
    for (unsigned k = 0; k < bins; ++k) {
      f += Number(fps > 0 ? k * fps / frames : k) + (k + 1 < bins ? "," : "]");
    }
    return f;
  }

  // The mean magnitude spectrum of the image or of a rectangle x0,y0 (its
  // first pixel) to x1,y1 (past its last).
  void MeanSpectrum(const httplib::Request& req, httplib::Response& res) {
    bool withReference = false;
    std::string why;
    if (!ReferenceParam(req, &withReference, &why)) return Refuse(res, 400, why);
    long r[4] = {0, 0, static_cast<long>(width), static_cast<long>(height)};
    const char* names[4] = {"x0", "y0", "x1", "y1"};
    int given = 0;
    for (int i = 0; i < 4; ++i) {
      if (!req.has_param(names[i])) continue;
      ++given;
      const long hi = static_cast<long>(i % 2 == 0 ? width : height);
      if (!ParseInt(req.get_param_value(names[i]), 0, hi, &r[i])) {
        return Refuse(
            res, 400,
            std::string(names[i]) + " must be a whole number in 0.." + std::to_string(hi));
      }
    }
    if (given != 0 && given != 4) return Refuse(res, 400, "give all of x0, y0, x1, y1 or none");
    if (r[0] >= r[2] || r[1] >= r[3]) {
      return Refuse(res, 400, "the rectangle is empty (x0 < x1 and y0 < y1 are needed)");
    }
    const bool whole = r[0] == 0 && r[1] == 0 && r[2] == width && r[3] == height;
    if (whole) {
      std::lock_guard<std::mutex> lock(meanMutex);
      if (!meanSpectrum[withReference].empty()) {
        return res.set_content(meanSpectrum[withReference], "application/json");
      }
    }
    std::vector<double> mean(bins);
    unsigned pixels = 0;
    const auto u = [&r](int i) { return static_cast<std::uint32_t>(r[i]); };
    if (!ReadCubeMeanMagnitude(options.header, header, u(0), u(1), u(2), u(3), 48,
                               withReference ? referenceSpectrum.data() : nullptr, mean.data(),
                               &pixels, &why)) {
      return Refuse(res, 409, why);
    }
    std::string json = "{\"frequency_hz\":" + FrequencyArray() + ",\"mean_magnitude\":[";
    for (unsigned k = 0; k < bins; ++k) json += Number(mean[k]) + (k + 1 < bins ? "," : "]");
    json += ",\"pixels\":" + std::to_string(pixels) + ",\"rectangle\":[" + std::to_string(r[0]) +
            "," + std::to_string(r[1]) + "," + std::to_string(r[2]) + "," + std::to_string(r[3]) +
            "]}";
    if (whole) {
      std::lock_guard<std::mutex> lock(meanMutex);
      meanSpectrum[withReference] = json;
    }
    res.set_content(json, "application/json");
  }

  // Which of --modes and --record a request means: `source` names one, and
  // without it the modes folder comes first.
  bool Source(const httplib::Request& req, bool* fromRecord, std::string* why) const {
    const bool haveModes = !options.modesDir.empty(), haveRecord = !options.record.empty();
    if (req.has_param("source")) {
      const std::string v = req.get_param_value("source");
      if (v != "modes" && v != "record") {
        *why = "source must be modes or record";
        return false;
      }
      *fromRecord = v == "record";
    } else {
      *fromRecord = !haveModes;
    }
    if (*fromRecord ? !haveRecord : !haveModes) {
      *why = *fromRecord ? "no record was given to frfcam view (--record)"
                         : "no modes folder was given to frfcam view (--modes)";
      return false;
    }
    return true;
  }

  void Modes(const httplib::Request& req, httplib::Response& res) const {
    bool fromRecord = false;
    std::string why;
    if (!Source(req, &fromRecord, &why)) return Refuse(res, 404, why);
    std::string json =
        std::string("{\"source\":\"") + (fromRecord ? "record" : "modes") + "\",\"modes\":[";
    if (fromRecord) {
      for (std::size_t k = 0; k < recordModes.size(); ++k) {
        json += (k ? ",{\"mode\":" : "{\"mode\":") + std::to_string(k + 1) +
                ",\"frequency_hz\":" + Number(recordModes[k].frequencyHz) +
                ",\"damping_ratio\":" + Number(recordModes[k].damping) + ",\"files\":[]}";
      }
    } else {
      const std::vector<ModeRow> rows = ReadModesCsv(options.modesDir);
      for (std::size_t k = 0; k < rows.size(); ++k) {
        const ModeRow& m = rows[k];
        std::string files;
        for (const ModeFile& f : kModeFiles) {
          if (platform::IsRegularFile(ModePath(m.mode, f))) {
            files += (files.empty() ? "\"" : ",\"") + std::string(f.name) + "\"";
          }
        }
        json += (k ? ",{\"mode\":" : "{\"mode\":") + std::to_string(m.mode) +
                ",\"frequency_hz\":" + Number(m.frequencyHz) +
                ",\"damping_ratio\":" + Number(m.damping) + ",\"mpc\":" + Number(m.mpc) +
                ",\"shape\":" + JsonString(m.shape) + ",\"files\":[" + files + "]}";
      }
    }
    res.set_content(json + "]}", "application/json");
  }

  void Chart(const httplib::Request& req, httplib::Response& res) const {
    bool fromRecord = false;
    std::string why;
    if (!Source(req, &fromRecord, &why)) return Refuse(res, 404, why);
    if (fromRecord) return res.set_content(recordChart, "application/json");
    const auto json = ReadWholeFile(options.modesDir + "/chart.json", 64u << 20);
    if (!json) {
      return Refuse(res, 404, "no chart.json in " + options.modesDir + " (run frfcam modes again)");
    }
    res.set_content(*json, "application/json");
  }

  std::string ModePath(int mode, const ModeFile& f) const {
    return options.modesDir + "/mode_" + std::to_string(mode) + f.suffix;
  }

  void ModeFileOf(const httplib::Request& req, httplib::Response& res) const {
    if (options.modesDir.empty()) {
      return Refuse(res, 404, "no modes folder was given to frfcam view (--modes)");
    }
    long mode = 0;
    if (!ParseInt(req.matches[1].str(), 1, 100000, &mode)) {
      return Refuse(res, 404, "no such mode");
    }
    for (const ModeFile& f : kModeFiles) {
      if (req.matches[2].str() != f.name) continue;
      const auto bytes = ReadWholeFile(ModePath(static_cast<int>(mode), f), 1u << 30);
      if (!bytes) {
        return Refuse(res, 404, "mode " + std::to_string(mode) + " has no " + f.name);
      }
      res.set_header("Cache-Control", "no-store");
      return res.set_content(*bytes, f.type);
    }
    Refuse(res, 404, "a mode has shape.png, shape.gif, shape.npy, disp.png, disp.npy, motion.gif");
  }
};

ViewServer::ViewServer(const ViewOptions& options) : state_(std::make_unique<State>()) {
  State& s = *state_;
  s.options = options;
  if (!s.header.Load(options.header))
    throw CommandError(options.header + " is not a capture header");
  std::string why;
  if (frfmap::CheckCube(options.header, s.header, &why) != frfmap::CubeState::kReady) {
    throw CommandError(why);
  }
  s.width = s.header.width();
  s.height = s.header.height();
  s.frames = s.header.frame_count();
  s.bins = static_cast<unsigned>(s.frames / 2 + 1);
  s.fps = s.header.float_field();
  if (!options.reference.empty()) {
    double fpsFromTimes = 0;
    s.reference = ReadReference(options.reference, &fpsFromTimes);
    WarnIfReferenceRateDiffers(options.reference, fpsFromTimes, s.fps, "the header gives");
    // The reference's own spectrum, scaled as the cube is, as `map` takes it.
    s.referenceSpectrum = ReferenceSpectrum(s.reference, s.frames);
  }
  if (!options.modesDir.empty()) ReadModesCsv(options.modesDir);  // refuse a wrong folder now
  if (!options.record.empty()) {
    s.recordChart = ChartJson(ReadRecordChart(options.record, &s.recordModes));
  }
  s.token = RandomToken();

  s.server.set_pre_routing_handler([&s](const httplib::Request& req, httplib::Response& res) {
    if (s.Authorised(req)) return httplib::Server::HandlerResponse::Unhandled;
    Refuse(res, 401, "a valid token is needed (?token= or Authorization: Bearer)");
    return httplib::Server::HandlerResponse::Handled;
  });
  s.server.set_exception_handler(
      [](const httplib::Request&, httplib::Response& res, std::exception_ptr ep) {
        std::string why = "internal error";
        try {
          std::rethrow_exception(ep);
        } catch (const std::exception& e) {
          why = e.what();
        } catch (...) {
        }
        Refuse(res, 409, why);
      });
  // The page's files at fixed paths: nothing is looked up by name.
  for (const PageFile* f = kPageFiles; f->name != nullptr; ++f) {
    const std::string path = std::string("/") + f->name;
    std::string content(reinterpret_cast<const char*>(f->data), f->size);
    // The page asks for its script and style with the token too.
    for (std::size_t at; (at = content.find("__TOKEN__")) != std::string::npos;) {
      content.replace(at, 9, s.token);
    }
    const auto serve = [f, content](const httplib::Request&, httplib::Response& res) {
      res.set_content(content, f->type);
    };
    s.server.Get(path, serve);
    if (path == "/index.html") s.server.Get("/", serve);
  }
  s.server.Get("/api/info", [&s](const httplib::Request&, httplib::Response& res) { s.Info(res); });
  s.server.Get("/api/map.png",
               [&s](const httplib::Request& req, httplib::Response& res) { s.Map(req, res); });
  s.server.Get("/api/spectrum",
               [&s](const httplib::Request& req, httplib::Response& res) { s.Spectrum(req, res); });
  s.server.Get("/api/mean_spectrum", [&s](const httplib::Request& req, httplib::Response& res) {
    s.MeanSpectrum(req, res);
  });
  s.server.Get("/api/modes",
               [&s](const httplib::Request& req, httplib::Response& res) { s.Modes(req, res); });
  s.server.Get("/api/chart",
               [&s](const httplib::Request& req, httplib::Response& res) { s.Chart(req, res); });
  s.server.Get(
      R"(/api/mode/(\d{1,6})/([a-z]+\.[a-z]+))",
      [&s](const httplib::Request& req, httplib::Response& res) { s.ModeFileOf(req, res); });
}

ViewServer::~ViewServer() { Stop(); }

const std::string& ViewServer::token() const { return state_->token; }

std::string ViewServer::Start() {
  State& s = *state_;
  int port = s.options.port;
  if (port == 0) {
    port = s.server.bind_to_any_port("127.0.0.1");
  } else if (!s.server.bind_to_port("127.0.0.1", port)) {
    port = -1;
  }
  if (port <= 0) {
    throw CommandError("cannot listen on 127.0.0.1:" + std::to_string(s.options.port));
  }
  s.thread = std::thread([&s] { s.server.listen_after_bind(); });
  return "http://127.0.0.1:" + std::to_string(port) + "/?token=" + s.token;
}

void ViewServer::Stop() {
  State& s = *state_;
  s.server.stop();
  if (s.thread.joinable()) s.thread.join();
}

}  // namespace frfcam::cli
