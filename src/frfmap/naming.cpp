#include "frfmap/naming.h"

#include <cstdio>

#include "platform/platform.h"

namespace frfcam::frfmap {

std::string DataFolder(const std::string& header_path) {
  const platform::PathParts p = platform::SplitPath(header_path);
  return p.drive + p.dir + p.fname;
}

std::string DataFilePath(const std::string& header_path, DataFile kind, unsigned number) {
  const platform::PathParts p = platform::SplitPath(header_path);
  std::string suffix;
  if (kind == DataFile::kSingle) {
    suffix = ".cap";
  } else if (kind == DataFile::kCubeRecord) {
    suffix = ".fft";
  } else {
    char buf[24];
    std::snprintf(buf, sizeof buf, kind == DataFile::kDivision ? "_%04u.div" : "_%04u.fft", number);
    suffix = buf;
  }
  return p.drive + p.dir + p.fname + platform::kPathSeparator + p.fname + suffix;
}

}  // namespace frfcam::frfmap
