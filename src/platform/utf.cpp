#include "platform/utf.h"

#include <cstdlib>
#include <cstring>

namespace frfcam::platform {

std::u16string Utf8ToUtf16(const std::string& text) {
  std::u16string out;
  out.reserve(text.size());
  const auto* s = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t n = text.size();
  std::size_t i = 0;
  while (i < n) {
    const unsigned char c = s[i];
    char32_t cp = 0;
    std::size_t len = 0;
    char32_t min = 0;
    if (c < 0x80) {
      cp = c;
      len = 1;
    } else if (c >= 0xC2 && c <= 0xDF) {
      cp = c & 0x1F;
      len = 2;
      min = 0x80;
    } else if (c >= 0xE0 && c <= 0xEF) {
      cp = c & 0x0F;
      len = 3;
      min = 0x800;
    } else if (c >= 0xF0 && c <= 0xF4) {
      cp = c & 0x07;
      len = 4;
      min = 0x10000;
    }
    bool ok = len != 0 && i + len <= n;
    for (std::size_t k = 1; ok && k < len; ++k) {
      if ((s[i + k] & 0xC0) != 0x80) ok = false;
      cp = (cp << 6) | (s[i + k] & 0x3F);
    }
    if (ok && (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))) ok = false;
    if (!ok) {
      out.push_back(u'\uFFFD');
      ++i;
      continue;
    }
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
    i += len;
  }
  return out;
}

#if !defined(_WIN32)
HostString NewHostString(const std::string& text) { return MallocCopy(Utf8ToUtf16(text)); }
#endif

char16_t* MallocCopy(const std::u16string& text) {
  auto* p = static_cast<char16_t*>(std::malloc((text.size() + 1) * sizeof(char16_t)));
  if (p == nullptr) return nullptr;
  if (!text.empty()) std::memcpy(p, text.data(), text.size() * sizeof(char16_t));
  p[text.size()] = u'\0';
  return p;
}

}  // namespace frfcam::platform
