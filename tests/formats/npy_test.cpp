#include "formats/npy.h"

#include <gtest/gtest.h>

#include <complex>
#include <fstream>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace frfcam::formats {
namespace {

std::string Python(const std::string& code) {
  const auto r = test::RunCommand(std::string(FRFCAM_SYSTEM_PYTHON) + " -c \"" + code + "\"");
  EXPECT_EQ(r.status, 0) << r.err;
  return r.out;
}

// What the library writes round-trips through our own reader, and numpy reads what we write
// with the right dtype, shape and values (C order: element [1, 2] is index 5).
TEST(Npy, RoundTripsAndNumpyAgrees) {
  test::ScratchDir dir;
  std::vector<std::complex<float>> c64(6);
  for (int i = 0; i < 6; ++i) c64[i] = {static_cast<float>(i), static_cast<float>(-2 * i)};
  std::vector<double> f64 = {1.5, -2.25, 3e300};
  ASSERT_EQ(WriteNpy(dir.file("c.npy"), {2, 3}, c64.data()), NpyStatus::kOk);
  ASSERT_EQ(WriteNpy(dir.file("d.npy"), {3}, f64.data()), NpyStatus::kOk);
  EXPECT_FALSE(std::filesystem::exists(dir.file("c.npy.partial")));

  NpyArray a;
  ASSERT_EQ(ReadNpy(dir.file("c.npy"), &a), NpyStatus::kOk);
  EXPECT_EQ(a.type, NpyType::kComplex64);
  EXPECT_EQ(a.shape, (std::vector<std::uint64_t>{2, 3}));
  EXPECT_EQ(a.AsComplex()[5], std::complex<double>(5, -10));
  EXPECT_THROW(a.AsReal(), std::invalid_argument);
  ASSERT_EQ(ReadNpy(dir.file("d.npy"), &a), NpyStatus::kOk);
  EXPECT_EQ(a.AsReal(), f64);

  if (!test::HaveSystemPython("numpy")) GTEST_SKIP() << "no python3-numpy";
  const std::string out =
      Python("import numpy as n; a = n.load('" + dir.file("c.npy") + "'); b = n.load('" +
             dir.file("d.npy") +
             "'); print(a.dtype, a.shape, a[1, 2], a.flags.c_contiguous, b.dtype, "
             "b.shape, b[2])");
  EXPECT_EQ(out, "complex64 (2, 3) (5-10j) True float64 (3,) 3e+300\n");
}

// Files numpy writes, including its 2.0 format and Fortran order, which is
// refused rather than misread.
TEST(Npy, ReadsNumpyFilesAndRefusesWhatItCannotRepresent) {
  if (!test::HaveSystemPython("numpy")) GTEST_SKIP() << "no python3-numpy";
  test::ScratchDir dir;
  Python("import numpy as n; d = '" + dir.path().string() +
         "/'; a = n.arange(12, dtype=n.complex128).reshape(3, 4) * (1 - 1j); "
         "n.save(d + 'c.npy', a); n.save(d + 'f.npy', n.asfortranarray(a)); "
         "n.save(d + 'i.npy', n.arange(3)); n.save(d + 'b.npy', n.arange(3, dtype='>f8')); "
         "n.lib.format.write_array(open(d + 'v2.npy', 'wb'), n.ones(2, n.float32), (2, 0))");
  NpyArray a;
  ASSERT_EQ(ReadNpy(dir.file("c.npy"), &a), NpyStatus::kOk);
  EXPECT_EQ(a.shape, (std::vector<std::uint64_t>{3, 4}));
  EXPECT_EQ(a.AsComplex()[7], std::complex<double>(7, -7));
  ASSERT_EQ(ReadNpy(dir.file("v2.npy"), &a), NpyStatus::kOk);
  EXPECT_EQ(a.AsReal(), (std::vector<double>{1, 1}));
  EXPECT_EQ(ReadNpy(dir.file("f.npy"), &a), NpyStatus::kUnsupported);
  EXPECT_EQ(ReadNpy(dir.file("i.npy"), &a), NpyStatus::kUnsupported);
  EXPECT_EQ(ReadNpy(dir.file("b.npy"), &a), NpyStatus::kUnsupported);
}

TEST(Npy, DamagedFilesGiveTheirCodes) {
  test::ScratchDir dir;
  NpyArray a;
  EXPECT_EQ(ReadNpy(dir.file("missing.npy"), &a), NpyStatus::kCannotOpen);
  std::ofstream(dir.file("text.npy")) << "hello, world";
  EXPECT_EQ(ReadNpy(dir.file("text.npy"), &a), NpyStatus::kNotNpy);

  std::vector<double> v(100, 1.0);
  ASSERT_EQ(WriteNpy(dir.file("v.npy"), {100}, v.data()), NpyStatus::kOk);
  std::filesystem::resize_file(dir.file("v.npy"), 64 + 799);
  EXPECT_EQ(ReadNpy(dir.file("v.npy"), &a), NpyStatus::kTruncated);
  ASSERT_EQ(WriteNpy(dir.file("v.npy"), {100}, v.data()), NpyStatus::kOk);
  EXPECT_EQ(ReadNpy(dir.file("v.npy"), &a, 799), NpyStatus::kTooLarge);

  {
    // Same header length, an overflowing shape: refused before allocating.
    std::string h = NpyHeader(NpyType::kFloat64, {1});
    const std::string big = "(99999999999, 99999999999)";
    h.replace(h.find("(1,)"), 4, big);
    h.erase(h.rfind(' ') - big.size() + 4, big.size() - 4);
    std::ofstream(dir.file("huge.npy"), std::ios::binary) << h;
  }
  EXPECT_EQ(ReadNpy(dir.file("huge.npy"), &a), NpyStatus::kTooLarge);
  // A header alone that claims 8 GiB (within the bound): refused for what the
  // file holds, before the bytes are allocated.
  std::ofstream(dir.file("claim.npy"), std::ios::binary)
      << NpyHeader(NpyType::kFloat64, {std::uint64_t{1} << 30});
  EXPECT_EQ(ReadNpy(dir.file("claim.npy"), &a), NpyStatus::kTruncated);
  NpyType type;
  std::vector<std::uint64_t> shape;
  EXPECT_EQ(ParseNpyHeader("{'descr': '<f8', 'shape': (2,), }", &type, &shape),
            NpyStatus::kBadHeader);
  EXPECT_EQ(ParseNpyHeader("{'descr': '<f8', 'fortran_order': False, 'shape': (2,", &type, &shape),
            NpyStatus::kBadHeader);

  EXPECT_EQ(WriteNpy(dir.file("no/such/dir/x.npy"), {1}, v.data()), NpyStatus::kCannotOpen);
}

}  // namespace
}  // namespace frfcam::formats
