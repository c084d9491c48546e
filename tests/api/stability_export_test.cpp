// ComputeStability through the C interface, each call in a child process so
// that its console output and result can be checked exactly.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <complex>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <limits>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "frfcam/frfcam.h"
#include "stability/synthetic.h"
#include "support/test_support.h"

namespace {

namespace fs = std::filesystem;
using frfcam::test::ScratchDir;

struct ChildResult {
  int code = INT_MIN;  // INT_MIN: the child did not exit normally
  std::string out;
  std::string err;
};

std::string ReadWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

ChildResult RunInChild(const std::function<int()>& call) {
  ScratchDir dir;
  const std::string out = dir.file("out"), err = dir.file("err");
  std::cout.flush();
  std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int o = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int e = ::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(o, 1);
    ::dup2(e, 2);
    const int code = call();
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
    ::_exit(static_cast<unsigned char>(code));
  }
  ChildResult r;
  int status = 0;
  if (pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status)) {
    r.code = static_cast<signed char>(WEXITSTATUS(status));
  }
  r.out = ReadWhole(out);
  r.err = ReadWhole(err);
  return r;
}

// The inputs of one call, kept alive for the child.
struct Inputs {
  std::string path;
  std::vector<double> omega;
  std::vector<std::complex<double>> frf;
  std::vector<std::complex<double>> matrix;
  int channels = 0;
  int minOrder = 10;
  int maxOrder = 20;
  double selectionTolerance = 0.01;
  int minStable = 4;
  double frequencyTolerance = 0.01;
  double dampingTolerance = 0.05;

  int lines() const { return static_cast<int>(omega.size()); }
  int Call() const {
    return ComputeStability(path.c_str(), reinterpret_cast<const double*>(frf.data()),
                            reinterpret_cast<const double*>(matrix.data()), channels, omega.data(),
                            lines(), minOrder, maxOrder, selectionTolerance, minStable,
                            frequencyTolerance, dampingTolerance, 0, 0);
  }
};

Inputs KnownSystem(const std::string& path, int lines = 600, int channels = 3) {
  using namespace frfcam::stability;
  const SyntheticFrfs s = SynthesizeFrfs(DefaultFiveModeSystem(lines, channels, 0.001));
  Inputs in;
  in.path = path;
  in.omega.assign(s.omega.data(), s.omega.data() + s.omega.size());
  in.frf.assign(s.frf.data(), s.frf.data() + s.frf.size());
  in.matrix.assign(s.matrix.data(), s.matrix.data() + s.matrix.size());
  in.channels = channels;
  return in;
}

const std::regex kTimingLine("took [0-9]+ms to run\\.\n");

// The record as the hand-written wire reader of tests/scripts sees it.
using Summary = std::map<std::string, std::vector<std::string>>;
Summary ReadRecord(const std::string& path) {
  const auto r = frfcam::test::RunCommand(std::string(FRFCAM_SYSTEM_PYTHON) + " " +
                                          FRFCAM_TEST_SCRIPTS + "/read_stab_record.py " + path);
  EXPECT_EQ(r.status, 0) << r.err;
  Summary summary;
  std::istringstream lines(r.out);
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream words(line);
    std::string key, word;
    words >> key;
    while (words >> word) summary[key].push_back(word);
  }
  return summary;
}

long Number(const Summary& s, const std::string& key, std::size_t i = 0) {
  const auto it = s.find(key);
  if (it == s.end() || it->second.size() <= i) return -1;
  return std::stol(it->second[i]);
}

class StabilityExport : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!frfcam::test::HaveSystemPython("struct")) GTEST_SKIP() << "no system python";
  }
  ScratchDir dir_;
};

TEST_F(StabilityExport, ReplacesTheFileWithTheRecordAndPrintsTheTimingLine) {
  const Inputs in = KnownSystem(dir_.file("record.pb"));
  std::ofstream(in.path, std::ios::binary) << std::string(4 << 20, '\xff');
  const ChildResult r = RunInChild([&] { return in.Call(); });
  ASSERT_EQ(r.code, 0);
  EXPECT_TRUE(std::regex_match(r.out, kTimingLine)) << r.out;
  EXPECT_EQ(r.err, "");

  const Summary s = ReadRecord(in.path);
  EXPECT_EQ(Number(s, "size"), static_cast<long>(fs::file_size(in.path)));
  EXPECT_LT(fs::file_size(in.path), 4u << 20);  // replaced, not appended to
  EXPECT_EQ(Number(s, "packed"), 1);
  // Fields in ascending number, each once; frfnum and the last order's
  // poles may be empty, the rest is all there.
  std::vector<int> tags;
  for (const std::string& t : s.at("tags")) tags.push_back(std::stoi(t));
  EXPECT_TRUE(std::is_sorted(tags.begin(), tags.end()) &&
              std::adjacent_find(tags.begin(), tags.end()) == tags.end());
  for (int required : {1, 5, 6, 7, 8, 9, 10, 11}) {
    EXPECT_NE(std::find(tags.begin(), tags.end(), required), tags.end()) << required;
  }
  EXPECT_EQ(Number(s, "numOrders"), 11);
  ASSERT_EQ(Number(s, "orderInfo"), 10);
  for (int k = 0; k < 10; ++k) EXPECT_EQ(Number(s, "order_num", k), 11 + k);
  EXPECT_EQ(s.at("sfdo").size(), 40u);
  EXPECT_EQ(s.at("eigenFrequency").size(), s.at("dampingFactor").size());
  const std::size_t selected = s.at("selected_poles").size();
  EXPECT_GT(selected, 0u);
  EXPECT_EQ(s.at("selected_dampingfactor").size(), selected);
  EXPECT_EQ(Number(s, "residues"), static_cast<long>(selected));
  EXPECT_EQ(Number(s, "frfm"), in.lines());
  EXPECT_EQ(s.at("lower_residual").size(), 2u);
  EXPECT_EQ(s.at("upper_residual").size(), 2u);
}

TEST_F(StabilityExport, WithoutStablePolesTheModalFieldsStayAbsent) {
  // Zero tolerances: no pole is ever stable against the order below.
  Inputs in = KnownSystem(dir_.file("record.pb"));
  in.frequencyTolerance = 0.0;
  in.dampingTolerance = 0.0;
  ASSERT_EQ(RunInChild([&] { return in.Call(); }).code, 0);
  const Summary s = ReadRecord(in.path);
  for (const std::string& tag : s.at("tags")) EXPECT_LE(std::stoi(tag), 5) << tag;
  EXPECT_EQ(Number(s, "orderInfo"), 10);
  EXPECT_EQ(s.at("lower_residual"), std::vector<std::string>({"absent"}));
  EXPECT_EQ(s.at("upper_residual"), std::vector<std::string>({"absent"}));
  EXPECT_EQ(Number(s, "frfm"), 0);
}

TEST_F(StabilityExport, UnwritableFileIsReportedAndStillSucceeds) {
  const Inputs in = KnownSystem(dir_.file("no-such-dir/record.pb"));
  const ChildResult r = RunInChild([&] { return in.Call(); });
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.err, "Failed to write address book.\n");
  EXPECT_TRUE(std::regex_match(r.out, kTimingLine)) << r.out;
  EXPECT_FALSE(fs::exists(dir_.path() / "no-such-dir"));
}

TEST_F(StabilityExport, InvalidInputGivesItsCodeAndNothingElse) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  struct Case {
    const char* what;
    int code;
    std::function<void(Inputs&)> spoil;
    bool nullPath = false;
    int nullArray = 0;  // 1 frf, 2 matrix, 3 frequencies
  };
  const std::vector<Case> cases = {
      {"null path", FRFCAM_STABILITY_NULL_ARGUMENT, [](Inputs&) {}, true},
      {"null frf", FRFCAM_STABILITY_NULL_ARGUMENT, [](Inputs&) {}, false, 1},
      {"null matrix", FRFCAM_STABILITY_NULL_ARGUMENT, [](Inputs&) {}, false, 2},
      {"null frequencies", FRFCAM_STABILITY_NULL_ARGUMENT, [](Inputs&) {}, false, 3},
      {"one line", FRFCAM_STABILITY_TOO_FEW_LINES, [](Inputs& in) { in.omega.resize(1); }},
      {"no lines, null arrays", FRFCAM_STABILITY_TOO_FEW_LINES,
       [](Inputs& in) {
         in.omega.clear();
         in.frf.clear();
         in.matrix.clear();
       }},
      {"no channel", FRFCAM_STABILITY_NO_CHANNELS, [](Inputs& in) { in.channels = 0; }},
      {"negative channels", FRFCAM_STABILITY_NO_CHANNELS, [](Inputs& in) { in.channels = -2; }},
      {"order 0", FRFCAM_STABILITY_BAD_MIN_ORDER, [](Inputs& in) { in.minOrder = 0; }},
      {"one order", FRFCAM_STABILITY_BAD_ORDER_RANGE,
       [](Inputs& in) { in.maxOrder = in.minOrder; }},
      {"reversed orders", FRFCAM_STABILITY_BAD_ORDER_RANGE,
       [](Inputs& in) { in.maxOrder = in.minOrder - 1; }},
      {"lines = maxOrder + 1", FRFCAM_STABILITY_ORDER_TOO_HIGH,
       [](Inputs& in) { in.maxOrder = in.lines() - 1; }},
      {"INT_MAX order", FRFCAM_STABILITY_ORDER_TOO_HIGH, [](Inputs& in) { in.maxOrder = INT_MAX; }},
      {"NaN frequency", FRFCAM_STABILITY_BAD_FREQUENCIES, [&](Inputs& in) { in.omega[7] = nan; }},
      {"infinite frequency", FRFCAM_STABILITY_BAD_FREQUENCIES,
       [&](Inputs& in) { in.omega.back() = inf; }},
      {"equal frequencies", FRFCAM_STABILITY_BAD_FREQUENCIES,
       [](Inputs& in) { std::fill(in.omega.begin(), in.omega.end(), 100.0); }},
      {"NaN in frf", FRFCAM_STABILITY_BAD_FRF,
       [&](Inputs& in) {
         in.frf[3] = {0.0, nan};
       }},
      {"infinity in matrix", FRFCAM_STABILITY_BAD_FRF,
       [&](Inputs& in) {
         in.matrix.back() = {inf, 0.0};
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Inputs in = KnownSystem(dir_.file("record.pb"), 40, 2);
    fs::remove(in.path);
    in.minOrder = 2;
    in.maxOrder = 8;
    c.spoil(in);
    const ChildResult r = RunInChild([&] {
      return ComputeStability(
          c.nullPath ? nullptr : in.path.c_str(),
          c.nullArray == 1 || in.frf.empty() ? nullptr
                                             : reinterpret_cast<const double*>(in.frf.data()),
          c.nullArray == 2 || in.matrix.empty() ? nullptr
                                                : reinterpret_cast<const double*>(in.matrix.data()),
          in.channels, c.nullArray == 3 ? nullptr : in.omega.data(), in.lines(), in.minOrder,
          in.maxOrder, 0.01, 3, 0.01, 0.05, 1, 1);
    });
    EXPECT_EQ(r.code, c.code);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
    EXPECT_FALSE(fs::exists(in.path));
  }
}

}  // namespace
