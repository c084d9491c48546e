#include <fstream>

#include "commands.h"

namespace frfcam::cli {

std::vector<float> ReadReference(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw CommandError("cannot read reference file " + path);
  std::vector<float> values;
  std::string line;
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    try {
      std::size_t used = 0;
      values.push_back(std::stof(line, &used));
      if (line.find_first_not_of(" \t\r", used) != std::string::npos)
        throw std::invalid_argument("");
    } catch (const std::exception&) {
      throw CommandError(path + ":" + std::to_string(number) + ": not a number: " + line);
    }
  }
  if (values.empty()) throw CommandError(path + ": no values");
  return values;
}

}  // namespace frfcam::cli
