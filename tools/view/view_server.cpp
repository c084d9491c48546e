#include "view/view_server.h"

#include <httplib.h>

#include <charconv>
#include <cmath>
#include <complex>
#include <cstdio>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "commands.h"
#include "cube_render.h"
#include "cube_state.h"
#include "frfmap/capture_header.h"
#include "frfmap/cube_check.h"
#include "map_image.h"
#include "png_writer.h"
#include "view/page_files.h"

namespace frfcam::cli {

namespace {

constexpr double kPi = 3.14159265358979323846;

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

std::string Number(double v) {
  if (!std::isfinite(v)) return "null";
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.9g", v);
  return buf;
}

void Refuse(httplib::Response& res, int status, const std::string& why) {
  res.status = status;
  res.set_content(why + "\n", "text/plain; charset=utf-8");
}

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
    std::string f = "[", re = "[", im = "[";
    for (unsigned k = 0; k < bins; ++k) {
      std::complex<double> v(values[k].real(), values[k].imag());
      if (withReference) v /= referenceSpectrum[k];
      const char* sep = k + 1 < bins ? "," : "]";
      f += Number(fps > 0 ? k * fps / frames : k) + sep;
      re += Number(v.real()) + sep;
      im += Number(v.imag()) + sep;
    }
    res.set_content("{\"frequency_hz\":" + f + ",\"re\":" + re + ",\"im\":" + im + "}",
                    "application/json");
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
    s.reference = ReadReference(options.reference);
    // The reference's own spectrum, scaled as the cube is, over the
    // capture's frames (missing samples are zero).
    s.referenceSpectrum.assign(s.bins, {});
    const std::size_t n = std::min<std::size_t>(s.reference.size(), s.frames);
    for (unsigned k = 0; k < s.bins; ++k) {
      std::complex<double> sum;
      for (std::size_t t = 0; t < n; ++t) {
        sum += static_cast<double>(s.reference[t]) *
               std::polar(1.0, -2.0 * kPi * static_cast<double>(k) * t / s.frames);
      }
      s.referenceSpectrum[k] = sum / static_cast<double>(s.frames);
    }
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
