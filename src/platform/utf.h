// Text conversion between the library's UTF-8 strings and the UTF-16 strings
// handed to hosts.
#pragma once

#include <string>

namespace frfcam::platform {

// Decodes UTF-8 into UTF-16. Every byte that does not start a well-formed
// sequence (overlong forms, surrogates, values above U+10FFFF, truncated
// sequences) becomes one U+FFFD.
std::u16string Utf8ToUtf16(const std::string& text);

// A NUL-terminated copy of `text` in memory from malloc(), for the host to
// free(); null when memory is exhausted.
char16_t* MallocCopy(const std::u16string& text);

}  // namespace frfcam::platform
