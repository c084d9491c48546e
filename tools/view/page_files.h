// The viewer's page, embedded in the tool at build time (tools/view/page/).
#pragma once

#include <cstddef>

namespace frfcam::cli {

struct PageFile {
  const char* name;  // "index.html", "view.js", ...
  const char* type;  // its Content-Type
  const unsigned char* data;
  std::size_t size;
};

// The files, ended by one whose name is null.
extern const PageFile kPageFiles[];

}  // namespace frfcam::cli
