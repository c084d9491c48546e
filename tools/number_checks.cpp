// Numeric option checks with plain messages.
#include <cmath>
#include <cstdlib>
#include <string>

#include "commands.h"

namespace frfcam::cli {

namespace {

// The message for `text` against a lower bound, or "" when it passes.
std::string Check(const std::string& text, bool zero_allowed) {
  const char* begin = text.c_str();
  char* end = nullptr;
  const double v = std::strtod(begin, &end);
  if (end == begin || *end != '\0' || !std::isfinite(v)) return "'" + text + "' is not a number";
  if (zero_allowed ? v < 0 : v <= 0) {
    return text + (zero_allowed ? " is negative; 0 or more is needed" : " is not above 0");
  }
  return {};
}

}  // namespace

const CLI::Validator& NonNegative() {
  static const CLI::Validator v([](std::string& s) { return Check(s, true); }, "NUMBER >= 0");
  return v;
}

const CLI::Validator& Positive() {
  static const CLI::Validator v([](std::string& s) { return Check(s, false); }, "NUMBER > 0");
  return v;
}

}  // namespace frfcam::cli
