// ComputeStability through the C interface, each call in a child process so
// that its console output and result can be checked exactly, and the record
// it writes read back field by field.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#if defined(_WIN32)
#include <io.h>
#else
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <Eigen/Dense>
#include <climits>
#include <cmath>
#include <complex>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <limits>
#include <regex>
#include <string>
#include <vector>

#include "frfcam/frfcam.h"
#include "stability/synthetic.h"
#include "support/test_support.h"
#include "talproto.pb.h"

namespace {

namespace fs = std::filesystem;
using frfcam::test::ScratchDir;

#if defined(_WIN32)
constexpr int kCreate = _O_WRONLY | _O_CREAT | _O_TRUNC | _O_BINARY;
#else
constexpr int kCreate = O_WRONLY | O_CREAT | O_TRUNC;
#endif

// status: the call's result, INT_MIN when the child did not exit normally.
// Windows has no fork: there the call runs in this process, its standard
// output and error sent to the files all the same.
frfcam::test::CommandResult RunInChild(const std::function<int()>& call) {
  ScratchDir dir;
  const std::string out = dir.file("out"), err = dir.file("err");
  const auto flush = [] {
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
  };
  flush();
  const int saved_out = dup(1), saved_err = dup(2);
  const int out_fd = open(out.c_str(), kCreate, 0600), err_fd = open(err.c_str(), kCreate, 0600);
  dup2(out_fd, 1);
  dup2(err_fd, 2);
  frfcam::test::CommandResult r;
#if defined(_WIN32)
  r.status = static_cast<signed char>(call());
#else
  const pid_t pid = fork();
  if (pid == 0) {
    const int code = call();
    flush();
    _exit(static_cast<unsigned char>(code));
  }
  int status = 0;
  r.status = pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status)
                 ? static_cast<signed char>(WEXITSTATUS(status))
                 : INT_MIN;
#endif
  flush();
  dup2(saved_out, 1);
  dup2(saved_err, 2);
  for (int fd : {saved_out, saved_err, out_fd, err_fd}) close(fd);
  r.out = frfcam::test::ReadFile(out);
  r.err = frfcam::test::ReadFile(err);
  return r;
}

// The inputs of one call, kept alive for the child; an empty path or array
// is passed as a null pointer.
struct Inputs {
  std::string path;
  std::vector<double> omega;
  std::vector<std::complex<double>> frf, matrix;
  int channels = 3, minOrder = 10, maxOrder = 20;
  double frequencyTolerance = 0.01, dampingTolerance = 0.05;
  unsigned char flag1 = 0, flag2 = 0;

  int lines() const { return static_cast<int>(omega.size()); }
  int Call() const {
    const auto raw = [](const auto& v) {
      return v.empty() ? nullptr : reinterpret_cast<const double*>(v.data());
    };
    return ComputeStability(path.empty() ? nullptr : path.c_str(), raw(frf), raw(matrix), channels,
                            raw(omega), lines(), minOrder, maxOrder, 0.01, 4, frequencyTolerance,
                            dampingTolerance, flag1, flag2);
  }
};

// The default system; a small one (2 channels, orders 2 up to `maxOrder`)
// for the calls whose fit does not matter.
Inputs KnownSystem(const std::string& path, int lines = 600, int channels = 3) {
  const frfcam::stability::SyntheticFrfs s = frfcam::stability::SynthesizeFrfs(
      frfcam::stability::DefaultFiveModeSystem(lines, channels, 0.001));
  return {path,
          {s.omega.begin(), s.omega.end()},
          {s.frf.begin(), s.frf.end()},
          {s.matrix.data(), s.matrix.data() + s.matrix.size()},
          channels};
}
Inputs SmallSystem(const std::string& path, int lines, int maxOrder) {
  Inputs in = KnownSystem(path, lines, 2);
  in.minOrder = 2;
  in.maxOrder = maxOrder;
  return in;
}

// Every mode of the default system once among `selected`.
void ExpectModesSelected(const google::protobuf::RepeatedField<double>& selected) {
  const auto modes = frfcam::stability::DefaultFiveModeSystem().modes;
  ASSERT_EQ(static_cast<std::size_t>(selected.size()), modes.size());
  for (const auto& mode : modes) {
    int hits = 0;
    for (double f : selected) hits += std::abs(f / mode.frequencyHz - 1.0) < 1e-3;
    EXPECT_EQ(hits, 1) << mode.frequencyHz;
  }
}

const std::regex kTimingLine("took [0-9]+ms to run\\.\n");

talproto::stabChartData ReadRecord(const std::string& path) {
  talproto::stabChartData record;
  EXPECT_TRUE(record.ParseFromString(frfcam::test::ReadFile(path))) << path;
  return record;
}

// Lines where frf is not finite leave the residue fit and, with flag2, the
// denominator fit; the chart, the selection and both models are all there.
TEST(StabilityExport, ReplacesTheFileWithTheWholeRecord) {
  ScratchDir dir;
  Inputs in = KnownSystem(dir.file("record.pb"));
  in.flag1 = in.flag2 = 1;
  in.frf[5] = {std::numeric_limits<double>::quiet_NaN(), 0.0};
  in.frf[300] = {0.0, std::numeric_limits<double>::infinity()};
  std::ofstream(in.path, std::ios::binary) << std::string(4 << 20, '\xff');
  const auto r = RunInChild([&] { return in.Call(); });
  ASSERT_EQ(r.status, 0);
  EXPECT_TRUE(std::regex_match(r.out, kTimingLine)) << r.out;
  EXPECT_EQ(r.err, "");
  EXPECT_LT(fs::file_size(in.path), 4u << 20);  // truncated, not written over in place

  const talproto::stabChartData record = ReadRecord(in.path);
  EXPECT_EQ(record.numorders(), 11u);
  ASSERT_EQ(record.orderinfo_size(), 10);  // orders 11..20; 10 is only a reference
  for (int k = 0; k < 10; ++k) EXPECT_EQ(record.orderinfo(k).order_num(), 11u + k);
  EXPECT_EQ(record.eigenfrequency_size(), record.dampingfactor_size());

  // Every mode selected once, a residue for each, both residual terms, and
  // the models of the single FRF at every line.
  ExpectModesSelected(record.selected_poles());
  EXPECT_EQ(std::make_pair(record.selected_dampingfactor_size(), record.residues_size()),
            std::make_pair(5, 5));
  EXPECT_TRUE(record.has_lower_residual() && record.has_upper_residual());
  ASSERT_EQ(std::make_pair(record.frfm_size(), record.frfnum_size()),
            std::make_pair(in.lines(), in.lines()));
  double error = 0.0, norm = 0.0;
  for (int i = 0; i < in.lines(); ++i) {
    const std::complex<double> model(record.frfm(i).re(), record.frfm(i).im());
    ASSERT_TRUE(std::isfinite(std::abs(model)) && std::isfinite(record.frfnum(i).re()) &&
                std::isfinite(record.frfnum(i).im()))
        << i;
    if (!std::isfinite(std::abs(in.frf[i]))) continue;
    error += std::norm(model - in.frf[i]);
    norm += std::norm(in.frf[i]);
  }
  EXPECT_LT(std::sqrt(error / norm), 1e-2);
}

TEST(StabilityExport, WithoutStablePolesTheModalFieldsStayAbsent) {
  ScratchDir dir;
  Inputs in = KnownSystem(dir.file("record.pb"));
  in.frequencyTolerance = in.dampingTolerance = 0.0;  // never stable against the order below
  ASSERT_EQ(RunInChild([&] { return in.Call(); }).status, 0);
  const talproto::stabChartData record = ReadRecord(in.path);
  EXPECT_EQ(record.orderinfo_size(), 10);
  EXPECT_EQ(record.selected_poles_size() + record.residues_size() + record.frfm_size() +
                record.frfnum_size() + record.eigenfrequency_size(),
            0);
  EXPECT_FALSE(record.has_lower_residual() || record.has_upper_residual());
}

// Paths that take no regular file: reported, and the call still succeeds. A
// FIFO must neither block the call (the child gives up after a while, so a
// regression cannot hang the suite) nor receive the bytes when it has a
// reader.
TEST(StabilityExport, UnwritablePathsAreReportedAndTheCallStillSucceeds) {
  ScratchDir dir;
  std::vector<std::string> paths = {dir.file("no-such-dir/record.pb")};
#if !defined(_WIN32)
  const std::string fifo = dir.file("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  paths.insert(paths.end(), {fifo, "/dev/null", dir.path().string()});
#endif
  for (const std::string& path : paths) {
    const Inputs in = SmallSystem(path, 100, 10);
    const auto r = RunInChild([&] {
#if !defined(_WIN32)
      ::alarm(60);
#endif
      return in.Call();
    });
    EXPECT_EQ(r.status, 0) << path;
    EXPECT_EQ(r.err, "Failed to write address book.\n") << path;
    EXPECT_TRUE(std::regex_match(r.out, kTimingLine)) << path << ": " << r.out;
  }
  EXPECT_FALSE(fs::exists(dir.path() / "no-such-dir"));
#if !defined(_WIN32)
  EXPECT_TRUE(fs::is_fifo(fifo));
  const int reader = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(reader, 0);
  const Inputs in = SmallSystem(fifo, 100, 10);
  EXPECT_EQ(RunInChild([&] { return in.Call(); }).err, "Failed to write address book.\n");
  char byte;
  EXPECT_EQ(::read(reader, &byte, 1), 0) << "bytes reached the FIFO";
  ::close(reader);
#endif
}

TEST(StabilityExport, InvalidInputGivesItsCodeAndNothingElse) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  struct Case {
    const char* what;
    int code;
    std::function<void(Inputs&)> spoil;
  };
  const std::vector<Case> cases = {
      {"null path", FRFCAM_STABILITY_NULL_ARGUMENT, [](Inputs& in) { in.path.clear(); }},
      {"null matrix", FRFCAM_STABILITY_NULL_ARGUMENT, [](Inputs& in) { in.matrix.clear(); }},
      {"one line", FRFCAM_STABILITY_TOO_FEW_LINES, [](Inputs& in) { in.omega.resize(1); }},
      {"no channel", FRFCAM_STABILITY_NO_CHANNELS, [](Inputs& in) { in.channels = 0; }},
      {"order 0", FRFCAM_STABILITY_BAD_MIN_ORDER, [](Inputs& in) { in.minOrder = 0; }},
      {"one order", FRFCAM_STABILITY_BAD_ORDER_RANGE, [](Inputs& in) { in.maxOrder = 2; }},
      {"NaN frequency", FRFCAM_STABILITY_BAD_FREQUENCIES, [&](Inputs& in) { in.omega[7] = nan; }},
      {"equal frequencies", FRFCAM_STABILITY_BAD_FREQUENCIES,
       [](Inputs& in) { in.omega.assign(in.omega.size(), 100.0); }},
      {"infinity in matrix", FRFCAM_STABILITY_BAD_FRF, [&](Inputs& in) { in.matrix[9] = inf; }},
  };
  ScratchDir dir;
  for (const Case& c : cases) {
    Inputs in = SmallSystem(dir.file("record.pb"), 40, 8);
    c.spoil(in);
    const auto r = RunInChild([&] { return in.Call(); });
    EXPECT_EQ(r.status, c.code) << c.what;
    EXPECT_EQ(r.out + r.err, "") << c.what;
    EXPECT_FALSE(fs::exists(dir.file("record.pb"))) << c.what;
  }
}

}  // namespace
