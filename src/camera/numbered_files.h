// Folders of numbered image files, as tools export a recording frame by
// frame: frame1.png .. frame12.png, or img_0001.tif .. img_0500.tif.
#pragma once

#include <string>
#include <vector>

namespace frfcam::camera {

struct NumberedFiles {
  std::vector<std::string> paths;  // the frames, in the order of their numbers
  // Empty, or one line on what the listing left out: missing numbers, and
  // files of the folder that are not part of the sequence.
  std::string notes;
};

// Lists the sequence in `folder` (UTF-8) among the regular files whose
// extension is one of `extensions` (lower case with the dot, matched
// without regard to case). A file's number is the last run of digits in its
// name before the extension; files that share the text before and after it
// form a sequence, ordered by the number's value, so that frame2 comes before
// frame10 and padding does not matter. The largest sequence is taken; files
// without a number and single files of other names are left out. False with
// one line in *error when the folder cannot be listed, holds no numbered
// file, holds a second sequence of two or more files (naming both), or two
// files of the sequence carry the same number (frame1 and frame01).
bool ListNumberedFiles(const std::string& folder, const std::vector<std::string>& extensions,
                       NumberedFiles* out, std::string* error);

// True when `path` (UTF-8) names a folder (following a symbolic link).
bool IsFolder(const std::string& path);

}  // namespace frfcam::camera
