// A substring check whose failure shows the whole text searched, so that a
// case needs no message of its own.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace frfcam::test {

// Success when `text` holds `part`; otherwise a failure quoting both.
inline testing::AssertionResult Contains(const std::string& text, const std::string& part) {
  if (text.find(part) != std::string::npos) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "no \"" << part << "\" in:\n" << text;
}

}  // namespace frfcam::test
