#include "formats/uff_text.h"

namespace frfcam::formats {

namespace {

// The length of the UTF-8 sequence at s[i], or 0 when it is not one that a
// strict decoder takes (no overlong forms, surrogates or code points past
// U+10FFFF).
std::size_t Utf8SequenceLength(std::string_view s, std::size_t i) {
  const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(s[k]); };
  const unsigned char c = byte(i);
  if (c < 0x80) return 1;
  std::size_t n = 0;
  unsigned char lo = 0x80, hi = 0xbf;  // allowed range of the second byte
  if (c >= 0xc2 && c <= 0xdf) {
    n = 2;
  } else if (c >= 0xe0 && c <= 0xef) {
    n = 3;
    if (c == 0xe0) lo = 0xa0;
    if (c == 0xed) hi = 0x9f;
  } else if (c >= 0xf0 && c <= 0xf4) {
    n = 4;
    if (c == 0xf0) lo = 0x90;
    if (c == 0xf4) hi = 0x8f;
  } else {
    return 0;
  }
  if (i + n > s.size()) return 0;
  if (byte(i + 1) < lo || byte(i + 1) > hi) return 0;
  for (std::size_t k = 2; k < n; ++k) {
    if (byte(i + k) < 0x80 || byte(i + k) > 0xbf) return 0;
  }
  return n;
}

// Text as one byte per character: Latin-1 where UTF-8 text allows, the
// bytes themselves where it is not UTF-8.
std::string ToLatin1(const std::string& text) {
  if (!UffIsUtf8(text)) return text;
  std::string out;
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t n = Utf8SequenceLength(text, i);
    const auto c0 = static_cast<unsigned char>(text[i]);
    if (n == 1) {
      out.push_back(text[i]);
    } else if (n == 2 && c0 <= 0xc3) {  // U+0080..U+00FF
      const auto c1 = static_cast<unsigned char>(text[i + 1]);
      out.push_back(static_cast<char>(((c0 & 0x03) << 6) | (c1 & 0x3f)));
    } else {
      out.push_back('?');
    }
    i += n;
  }
  return out;
}

}  // namespace

bool UffIsUtf8(std::string_view s) {
  for (std::size_t i = 0; i < s.size();) {
    const std::size_t n = Utf8SequenceLength(s, i);
    if (n == 0) return false;
    i += n;
  }
  return true;
}

std::string UffLatin1Line(const std::string& text) {
  std::string line = ToLatin1(text);
  std::replace_if(
      line.begin(), line.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
  return line;
}

std::string UffTextField(const std::string& text, std::size_t width) {
  std::string s = text.empty() ? "NONE" : UffLatin1Line(text).substr(0, width);
  s.resize(width, ' ');
  return s;
}

std::string UffIdLine(const std::string& text) {
  const std::string line = UffLatin1Line(text).substr(0, 80);
  return line.find_first_not_of(" \t") == std::string::npos ? "NONE" : line;
}

}  // namespace frfcam::formats
