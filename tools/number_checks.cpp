// Numeric option checks with plain messages, and LOW:HIGH pairs.
#include <cmath>
#include <cstdlib>
#include <stdexcept>
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

void ParsePair(const std::string& text, const char* option, double* a, double* b) {
  const auto colon = text.find(':');
  try {
    if (colon == std::string::npos) throw std::invalid_argument(text);
    std::size_t u1 = 0, u2 = 0;
    const std::string x = text.substr(0, colon), y = text.substr(colon + 1);
    *a = std::stod(x, &u1);
    *b = std::stod(y, &u2);
    if (u1 != x.size() || u2 != y.size()) throw std::invalid_argument(text);
  } catch (const std::logic_error&) {
    throw CommandError(std::string(option) + ": expected LOW:HIGH, got '" + text + "'");
  }
}

const CLI::Validator& NonNegative() {
  static const CLI::Validator v([](std::string& s) { return Check(s, true); }, "NUMBER >= 0");
  return v;
}

const CLI::Validator& Positive() {
  static const CLI::Validator v([](std::string& s) { return Check(s, false); }, "NUMBER > 0");
  return v;
}

}  // namespace frfcam::cli
