// Writing a small result file whole, without ever blocking on what the path
// names.
#pragma once

#include <cstddef>
#include <string>

namespace frfcam::platform {

// Makes `size` bytes at `data` the whole content of the regular file at
// `path` (UTF-8), creating it or replacing its content. Anything that is not
// a regular file (a FIFO, a device, a directory) is refused without being
// written to or waited on, as is a path where no file can be created. When
// writing fails part way the file is left empty, so that a partial content
// never passes for a complete one. Returns true when every byte was written
// and the file closed cleanly. Never throws.
bool WriteWholeFile(const std::string& path, const void* data, std::size_t size);

}  // namespace frfcam::platform
