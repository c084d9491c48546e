// Pieces every universal-file writer shares: text fields as one Latin-1 byte
// per column (see uff.h for why), and records formatted into fixed columns
// that refuse a number too wide for its field rather than shift the fields
// after it. Internal to the formats library.
#pragma once

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <string_view>

namespace frfcam::formats {

// True when `s` is UTF-8 as a strict decoder judges it: no overlong forms,
// surrogates or code points past U+10FFFF.
bool UffIsUtf8(std::string_view s);

// UTF-8 text as one byte per character: U+0000..U+00FF as its Latin-1 byte,
// any other character as '?'. Text that is not valid UTF-8 is returned as
// the bytes it is. Line ends become blanks, since they would split a record.
std::string UffLatin1Line(const std::string& text);

// A fixed-width text field: the Latin-1 text cut or blank-padded to `width`
// columns; "NONE" (padded) for empty text.
std::string UffTextField(const std::string& text, std::size_t width);

// An ID line (records 1-5 of the datasets that have them, 80A1): the text
// cut to 80 columns, or "NONE" when it is blank, as readers require.
std::string UffIdLine(const std::string& text);

// Appends printf output (at most 255 bytes).
template <class... Args>
void UffAppend(std::string* out, const char* format, Args... args) {
  char line[256];
  const int n = std::snprintf(line, sizeof line, format, args...);
  out->append(line, static_cast<std::size_t>(std::clamp<int>(n, 0, sizeof line - 1)));
}

// Appends one record that `format` must print `width` columns wide plus its
// line end; otherwise appends nothing and throws std::invalid_argument with
// `what` + " does not fit its field".
template <class... Args>
void UffAppendRecord(std::string* out, std::size_t width, const std::string& what,
                     const char* format, Args... args) {
  const std::size_t before = out->size();
  UffAppend(out, format, args...);
  if (out->size() - before != width + 1) {
    out->resize(before);
    throw std::invalid_argument(what + " does not fit its field");
  }
}

}  // namespace frfcam::formats
