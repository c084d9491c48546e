// The headers that describe an MRAW recording: CIH, text lines of the form
// "key : value" ending with a line "END", and CIHX, the same facts as XML
// (after a binary preamble) in elements such as
// <cih><imageDataInfo><resolution><width>. Both parse into one list of
// fields under the CIH key names, so that the reader interprets one thing.
#pragma once

#include <map>
#include <string>
#include <string_view>

namespace frfcam::camera {

// Header fields under their CIH names, lower-cased ("image width",
// "record rate(fps)"), values trimmed as written. The first occurrence of a
// key wins.
using CihFields = std::map<std::string, std::string>;

// The key : value lines of a CIH text up to its END line. Lines without a
// colon and section titles ('#...') are skipped; CR LF and LF both end a
// line. Never fails: a text with no fields gives an empty map.
CihFields ParseCih(std::string_view text);

// The fields of a CIHX that the reader needs, mapped onto their CIH names:
// the XML from the first "<cih" to its end, read by a small tolerant
// scanner (comments, declarations and attributes skipped, the five
// predefined entities decoded). False with one line in *error when there is
// no <cih> element or the markup breaks off.
bool ParseCihx(std::string_view bytes, CihFields* fields, std::string* error);

}  // namespace frfcam::camera
