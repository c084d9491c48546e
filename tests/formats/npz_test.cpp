// .npz archives as numpy writes them (plain and compressed), and the FRF
// input taken from them.
#include "formats/npz.h"

#include <gtest/gtest.h>

#include <fstream>

#include "support/test_support.h"

namespace frfcam::formats {
namespace {

// Runs a numpy snippet with `path` bound to P; false when numpy is missing.
bool Numpy(const std::string& path, const std::string& code) {
  if (!test::HaveSystemPython("numpy")) return false;
  const test::CommandResult r =
      test::RunCommand(std::string(FRFCAM_SYSTEM_PYTHON) + " -c 'import numpy as np; P=\"" + path +
                       "\"; f=np.linspace(10,20,5); " + code + "'");
  EXPECT_EQ(r.status, 0) << r.err;
  return r.status == 0;
}

TEST(Npz, FrfsFromEveryWayNumpyWritesThem) {
  test::ScratchDir dir;
  struct Case {
    std::string code, note;
    bool transposed;
  } cases[] = {
      // Named members, plain archive, complex128 (lines, channels).
      {"np.savez(P, frequencies_hz=f, frf_matrix=(np.arange(10)+1j*np.arange(10)).reshape(5,2), "
       "comment=np.zeros(3))",
       "frequencies from frequencies_hz, FRFs from frf_matrix (5, 2)", false},
      // Compressed, complex64, channels by lines.
      {"np.savez_compressed(P, f=f, "
       "H=(np.arange(10)+1j*np.arange(10)).reshape(2,5).astype(np.complex64))",
       "FRFs from H (2, 5) (channels by lines)", true},
      // Two unnamed arrays.
      {"np.savez(P, (np.arange(10)+1j*np.arange(10)).reshape(5,2), f)",
       "frequencies from arr_1, FRFs from arr_0 (5, 2)", false},
  };
  for (const Case& c : cases) {
    const std::string path = dir.file("frf.npz");
    if (!Numpy(path, c.code)) GTEST_SKIP() << "no numpy under " << FRFCAM_SYSTEM_PYTHON;
    std::vector<NpzMember> members;
    std::string error;
    ASSERT_TRUE(ReadNpz(path, &members, &error)) << error;
    FrfArrays frf;
    ASSERT_TRUE(FrfFromArrays(members, path, &frf, &error)) << error;
    EXPECT_NE(frf.note.find(c.note), std::string::npos) << frf.note;
    EXPECT_EQ(frf.frequencyHz, (std::vector<double>{10, 12.5, 15, 17.5, 20}));
    ASSERT_EQ(frf.channels, 2u);
    ASSERT_EQ(frf.frf.size(), 10u);
    for (int ch = 0; ch < 2; ++ch) {
      for (int i = 0; i < 5; ++i) {
        const double v = c.transposed ? ch * 5 + i : i * 2 + ch;
        EXPECT_EQ(frf.frf[ch * 5 + i], std::complex<double>(v, v)) << c.code;
      }
    }
  }
}

TEST(Npz, BadArchivesAndMembersSayWhat) {
  test::ScratchDir dir;
  const std::string path = dir.file("x.npz");
  std::vector<NpzMember> members;
  std::string error;
  EXPECT_FALSE(ReadNpz(dir.file("missing.npz"), &members, &error));
  EXPECT_NE(error.find("no such file"), std::string::npos) << error;
  std::ofstream(path) << "frequency,re,im\n";
  EXPECT_FALSE(ReadNpz(path, &members, &error));
  EXPECT_NE(error.find("not a zip archive"), std::string::npos) << error;

  struct Case {
    std::string code, words;
  } cases[] = {
      {"np.savez(P, f=f, frf=np.arange(5))", "member frf.npy): unsupported"},  // integers
      {"np.savez(P, f=f, frf=np.ones((3,4),complex))", "does not have 5 lines"},
      {"np.savez(P, a=f, b=f, c=f)", "expected a frequency vector"},
      {"np.savez(P, f=np.ones((5,1)), frf=np.ones(5,complex))", "not a real 1-D"},
      // A flipped byte in compressed data.
      {"np.savez_compressed(P, f=f, frf=np.ones((5,300),complex)*np.arange(300)); "
       "b=bytearray(open(P,\"rb\").read()); b[200]^=0xff; open(P,\"wb\").write(b)",
       "member"},
  };
  for (const Case& c : cases) {
    if (!Numpy(path, c.code)) GTEST_SKIP() << "no numpy";
    FrfArrays frf;
    const bool read = ReadNpz(path, &members, &error) && FrfFromArrays(members, path, &frf, &error);
    EXPECT_FALSE(read) << c.code;
    EXPECT_NE(error.find(c.words), std::string::npos) << c.code << ": " << error;
  }
}

}  // namespace
}  // namespace frfcam::formats
