// Text conversion between the library's 8-bit strings and the UTF-16 strings
// handed to hosts.
#pragma once

#include <string>

namespace frfcam::platform {

// The UTF-16 string type that GetFrfMapCalcsName hands out: a BSTR on
// Windows, a malloc() block elsewhere.
#if defined(_WIN32)
using HostString = wchar_t*;
#else
using HostString = char16_t*;
#endif

// A new host-owned UTF-16 copy of one of the library's 8-bit strings: UTF-8
// decoded as by Utf8ToUtf16 (freed with free()) on Linux; on Windows
// converted from the ANSI code page with MultiByteToWideChar(CP_ACP) into a
// SysAllocString BSTR (freed with SysFreeString). Null when memory is
// exhausted; the empty string gives an empty, non-null string.
HostString NewHostString(const std::string& text);

// Decodes UTF-8 into UTF-16. Every byte that does not start a well-formed
// sequence (overlong forms, surrogates, values above U+10FFFF, truncated
// sequences) becomes one U+FFFD.
std::u16string Utf8ToUtf16(const std::string& text);

// A NUL-terminated copy of `text` in memory from malloc(), for the host to
// free(); null when memory is exhausted.
char16_t* MallocCopy(const std::u16string& text);

}  // namespace frfcam::platform
