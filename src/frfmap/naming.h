// The naming rule of a capture's data files: they lie in a folder named after
// the capture, beside its header file. For DIR/NAME.EXT, division file n is
// DIR/NAME/NAME_000n.div, cube file n DIR/NAME/NAME_000n.fft and the single
// file DIR/NAME/NAME.cap (numbers have at least four digits). The cube's
// completion record is DIR/NAME/NAME.fft, so that it goes with the cube.
#pragma once

#include <string>

namespace frfcam::frfmap {

enum class DataFile { kDivision, kCube, kSingle, kCubeRecord };

// `number` is 1-based and ignored for kSingle and kCubeRecord.
std::string DataFilePath(const std::string& header_path, DataFile kind, unsigned number);

// The folder that holds the data files of a capture.
std::string DataFolder(const std::string& header_path);

}  // namespace frfcam::frfmap
