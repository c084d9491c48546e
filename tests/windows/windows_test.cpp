// What only the Windows library does: BSTR names from the ANSI code page,
// ANSI paths opened through the wide API, the backslash naming rule with
// drive letters, share modes that keep writers out while files are read, and
// DeleteCube's exact ".fft" match on a file system that ignores case.
#include <gtest/gtest.h>
#include <windows.h>
// After windows.h, which it needs.
#include <oleauto.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "frfcam/frfcam.h"
#include "frfmap/capture_writer.h"
#include "frfmap/naming.h"
#include "platform/platform.h"
#include "support/test_support.h"

namespace frfcam {
namespace {

namespace fs = std::filesystem;
using frfmap::DataFile;
using frfmap::DataFilePath;
using test::ScratchDir;

// The name as the host sees it; frees the BSTR.
std::wstring TakeName(FrfMapCalcs* calcs, UINT* length = nullptr) {
  BSTR name = GetFrfMapCalcsName(calcs);
  EXPECT_NE(name, nullptr);
  if (name == nullptr) return {};
  if (length != nullptr) *length = SysStringLen(name);
  std::wstring s(name, SysStringLen(name));
  SysFreeString(name);
  return s;
}

TEST(WindowsName, IsABstrTheHostFrees) {
  FrfMapCalcs* calcs = CreateFrfMapCalcs("bridge deck");
  UINT length = 99;
  EXPECT_EQ(TakeName(calcs, &length), L"bridge deck");
  EXPECT_EQ(length, 11u);
  SetFrfMapCalcsName(calcs, "");
  EXPECT_EQ(TakeName(calcs, &length), L"");
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(GetFrfMapCalcsName(nullptr), nullptr);
  DeleteFrfMapCalcs(calcs);
}

TEST(WindowsName, ComesFromTheAnsiCodePage) {
  // wine-run's C.UTF-8 locale gives code page 1252, where 0xE9 is e-acute and
  // 0x80 the euro sign; UTF-8 decoding would give replacement characters.
  if (GetACP() != 1252) GTEST_SKIP() << "ANSI code page is " << GetACP() << ", not 1252";
  FrfMapCalcs* calcs = CreateFrfMapCalcs("caf\xE9 \x80");
  EXPECT_EQ(TakeName(calcs), L"caf\u00E9 \u20AC");
  DeleteFrfMapCalcs(calcs);
}

TEST(WindowsPaths, BackslashNamingRuleWithDriveLetters) {
  EXPECT_EQ(DataFilePath("C:\\data\\run.hdr", DataFile::kCube, 1), "C:\\data\\run\\run_0001.fft");
  EXPECT_EQ(DataFilePath("D:plate.v2.hdr", DataFile::kDivision, 12),
            "D:plate.v2\\plate.v2_0012.div");
  EXPECT_EQ(DataFilePath("C:/data\\sub/run.hdr", DataFile::kSingle, 0),
            "C:/data\\sub/run\\run.cap");
  const platform::PathParts p = platform::SplitPath("E:\\a.b\\plate");
  EXPECT_EQ(p.drive, "E:");
  EXPECT_EQ(p.dir, "\\a.b\\");
  EXPECT_EQ(p.fname, "plate");
  EXPECT_EQ(p.ext, "");
}

TEST(WindowsMemory, ComesFromGlobalMemoryStatusEx) {
  MEMORYSTATUSEX status{};
  status.dwLength = sizeof(status);
  ASSERT_TRUE(GlobalMemoryStatusEx(&status));
  const std::uint64_t available = platform::AvailablePhysicalMemory();
  EXPECT_GT(available, 0u);
  EXPECT_LE(available, status.ullTotalPhys);
}

// A small capture below `folder` (an ANSI path), its header's path returned.
std::string WriteSmallCapture(const std::string& folder, const char* name) {
  frfmap::CaptureDesc desc;
  desc.width = 12;
  desc.height = 6;
  desc.frames = 40;
  desc.fps = 400.0;
  desc.pixel_format = 1;
  desc.frames_per_file = 16;
  const std::string header = folder + "\\" + name + ".hdr";
  std::string error;
  EXPECT_TRUE(frfmap::WriteCapture(
      header, desc,
      [&](std::int32_t f, std::uint16_t* s) {
        for (int p = 0; p < 12 * 6; ++p)
          s[p] = static_cast<std::uint16_t>(1000 + 37 * ((f * p) % 50));
      },
      &error))
      << error;
  return header;
}

int Render(const std::string& header) {
  FrfMapCalcs* calcs = CreateFrfMapCalcs("render");
  int r = OpenCube(calcs, header.c_str());
  if (r == 0) r = RenderCube(calcs, [](int) {});
  DeleteFrfMapCalcs(calcs);
  return r;
}

// The wide path of an ANSI one, as the library converts it.
fs::path Wide(const std::string& ansi) { return platform::PathFromUtf8(ansi); }

TEST(WindowsFiles, AnsiPathsAreOpenedThroughTheWideApi) {
  if (GetACP() != 1252) GTEST_SKIP() << "ANSI code page is " << GetACP() << ", not 1252";
  ScratchDir dir;
  // "déjà vu" in code page 1252; on disk it must be the UTF-16 name.
  const std::string folder = dir.path().string() + "\\d\xE9j\xE0 vu";
  ASSERT_TRUE(fs::create_directory(dir.path() / L"d\u00E9j\u00E0 vu"));
  const std::string header = WriteSmallCapture(folder, "cap");
  ASSERT_EQ(Render(header), 0);
  const fs::path cube = dir.path() / L"d\u00E9j\u00E0 vu" / L"cap" / L"cap_0001.fft";
  EXPECT_TRUE(fs::exists(cube));

  FrfMapCalcs* reader = CreateFrfMapCalcs("reader");
  ASSERT_EQ(OpenCube(reader, header.c_str()), 0);
  std::vector<unsigned char> map(12 * 6);
  EXPECT_EQ(ReadFRFMap(reader, 3, 1.0f, map.data()), 0);
  DeleteFrfMapCalcs(reader);

  DeleteCube(nullptr, folder.c_str());
  EXPECT_FALSE(fs::exists(cube));
  EXPECT_TRUE(fs::exists(dir.path() / L"d\u00E9j\u00E0 vu" / L"cap" / L"cap_0001.div"));
}

std::string ReadWhole(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

bool CanOpenForWriting(const fs::path& path, DWORD* error) {
  HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                         OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  *error = GetLastError();
  if (h == INVALID_HANDLE_VALUE) return false;
  CloseHandle(h);
  return true;
}

TEST(WindowsFiles, ReadersShutOutOtherWriters) {
  ScratchDir dir;
  const std::string header = WriteSmallCapture(dir.path().string(), "cap");
  ASSERT_EQ(Render(header), 0);
  const std::string cube = DataFilePath(header, DataFile::kCube, 1);
  const std::string division = DataFilePath(header, DataFile::kDivision, 1);
  DWORD error = 0;
  ASSERT_TRUE(CanOpenForWriting(Wide(cube), &error));

  // The platform's files: other readers are welcome, writers are not.
  {
    platform::File file;
    ASSERT_TRUE(file.Open(division, platform::File::Mode::kRead));
    EXPECT_FALSE(CanOpenForWriting(Wide(division), &error));
    EXPECT_EQ(error, static_cast<DWORD>(ERROR_SHARING_VIOLATION));
    platform::File second;
    EXPECT_TRUE(second.Open(division, platform::File::Mode::kRead));
    std::FILE* stream = platform::OpenFile(header, "rb");
    ASSERT_NE(stream, nullptr);
    EXPECT_FALSE(CanOpenForWriting(Wide(header), &error));
    std::fclose(stream);
  }
  EXPECT_TRUE(CanOpenForWriting(Wide(division), &error));

  // An object reading the cube keeps writers, renders and DeleteCube off its
  // files, which stay as they were.
  FrfMapCalcs* reader = CreateFrfMapCalcs("reader");
  ASSERT_EQ(OpenCube(reader, header.c_str()), 0);
  std::vector<unsigned char> map(12 * 6);
  ASSERT_EQ(ReadFRFMap(reader, 5, 1.0f, map.data()), 0);
  const std::string bytes = ReadWhole(Wide(cube));
  EXPECT_FALSE(CanOpenForWriting(Wide(cube), &error));
  EXPECT_EQ(error, static_cast<DWORD>(ERROR_SHARING_VIOLATION));
  EXPECT_EQ(Render(header), FRFCAM_RENDER_WRITE_FAILED);
  DeleteCube(nullptr, dir.path().string().c_str());
  EXPECT_TRUE(fs::exists(Wide(cube)));
  EXPECT_EQ(ReadWhole(Wide(cube)), bytes);
  DeleteFrfMapCalcs(reader);

  // Once the reader is gone, everything may go.
  EXPECT_EQ(Render(header), 0);
  DeleteCube(nullptr, dir.path().string().c_str());
  EXPECT_FALSE(fs::exists(Wide(cube)));
}

TEST(WindowsFiles, DeleteCubeMatchesFftExactly) {
  ScratchDir dir;
  const fs::path root = dir.path();
  fs::create_directories(root / "sub" / "deeper");
  for (const char* name :
       {"a.fft", "b.FFT", "c.Fft", "sub\\d.fft", "sub\\deeper\\e.fft", "f.fft.txt", "g.ffts"}) {
    std::ofstream(root / name) << "x";
  }
  fs::create_directory(root / "folder.fft");
  DeleteCube(nullptr, (dir.path().string() + "\\").c_str());
  for (const char* gone : {"a.fft", "sub\\d.fft", "sub\\deeper\\e.fft"}) {
    EXPECT_FALSE(fs::exists(root / gone)) << gone;
  }
  for (const char* kept : {"b.FFT", "c.Fft", "f.fft.txt", "g.ffts", "folder.fft"}) {
    EXPECT_TRUE(fs::exists(root / kept)) << kept;
  }
}

}  // namespace
}  // namespace frfcam
