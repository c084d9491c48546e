// The viewer's HTTP server: the page and a small JSON and PNG API over one
// capture's cube, on the loopback interface only, every request carrying a
// random token. Paths never come from requests: the server knows the
// capture's, the modes folder's and the record's files and nothing else.
#pragma once

#include <memory>
#include <string>

namespace frfcam::cli {

struct ViewOptions {
  std::string header;     // a capture header whose cube is complete
  std::string reference;  // a reference signal file, or empty
  std::string modesDir;   // the output folder of `frfcam modes`, or empty
  std::string record;     // a stability record (.pb), or empty
  int port = 0;           // 0: a free port
};

class ViewServer {
 public:
  // Loads what the options name; throws CommandError when it cannot.
  explicit ViewServer(const ViewOptions& options);
  ~ViewServer();  // stops serving and joins the server's threads
  ViewServer(const ViewServer&) = delete;
  ViewServer& operator=(const ViewServer&) = delete;

  // Binds 127.0.0.1 and serves from a thread of its own; returns the URL
  // with the token. Throws CommandError when the port cannot be bound.
  std::string Start();
  // Stops serving; returns once every request in flight is answered.
  void Stop();
  const std::string& token() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// Equal strings, compared in a time that depends only on their lengths.
bool SameToken(const std::string& a, const std::string& b);

}  // namespace frfcam::cli
