#include "camera/cih.h"

#include <cctype>
#include <utility>
#include <vector>

namespace frfcam::camera {
namespace {

std::string Lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::string_view Trim(std::string_view s) {
  const auto space = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  while (!s.empty() && space(s.front())) s.remove_prefix(1);
  while (!s.empty() && space(s.back())) s.remove_suffix(1);
  return s;
}

// CIHX element paths (below <cih>, lower-cased) and the CIH keys that say
// the same.
constexpr std::pair<std::string_view, std::string_view> kCihxFields[] = {
    {"cih/recordinfo/recordrate", "record rate(fps)"},
    {"cih/frameinfo/totalframe", "total frame"},
    {"cih/frameinfo/startframe", "start frame"},
    {"cih/imagedatainfo/resolution/width", "image width"},
    {"cih/imagedatainfo/resolution/height", "image height"},
    {"cih/imagedatainfo/colorinfo/type", "color type"},
    {"cih/imagedatainfo/colorinfo/bit", "color bit"},
    {"cih/imagedatainfo/effectivebit/depth", "effectivebit depth"},
    {"cih/imagedatainfo/effectivebit/side", "effectivebit side"},
    {"cih/imagefileinfo/fileformat", "file format"},
};

std::string DecodeEntities(std::string_view s) {
  static constexpr std::pair<std::string_view, char> kEntities[] = {
      {"&lt;", '<'}, {"&gt;", '>'}, {"&amp;", '&'}, {"&quot;", '"'}, {"&apos;", '\''}};
  std::string out;
  for (std::size_t i = 0; i < s.size();) {
    bool done = false;
    if (s[i] == '&') {
      for (const auto& [name, c] : kEntities) {
        if (s.substr(i, name.size()) == name) {
          out += c;
          i += name.size();
          done = true;
          break;
        }
      }
    }
    if (!done) out += s[i++];
  }
  return out;
}

// Whether `s` at `pos` starts the <cih> element (not <cihx> or the like).
bool IsCihStart(std::string_view s, std::size_t pos) {
  if (s.substr(pos, 4) != "<cih") return false;
  if (pos + 4 >= s.size()) return true;
  const char c = s[pos + 4];
  return c == '>' || c == '/' || c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

}  // namespace

CihFields ParseCih(std::string_view text) {
  CihFields fields;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    line = Trim(line);
    if (line == "END") break;
    if (line.empty() || line.front() == '#') continue;
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    std::string key = Lower(Trim(line.substr(0, colon)));
    if (key.empty()) continue;
    fields.emplace(std::move(key), std::string(Trim(line.substr(colon + 1))));
  }
  return fields;
}

bool ParseCihx(std::string_view bytes, CihFields* fields, std::string* error) {
  std::size_t pos = 0;
  while ((pos = bytes.find("<cih", pos)) != std::string_view::npos && !IsCihStart(bytes, pos)) {
    ++pos;
  }
  if (pos == std::string_view::npos) {
    *error = "no <cih> element";
    return false;
  }
  // Open elements with the text directly inside each.
  struct Open {
    std::string path;
    std::string text;
  };
  std::vector<Open> open;
  constexpr std::size_t kMaxDepth = 64;  // far deeper than any real header
  while (pos < bytes.size()) {
    const std::size_t lt = bytes.find('<', pos);
    if (lt == std::string_view::npos) break;
    if (!open.empty()) open.back().text += bytes.substr(pos, lt - pos);
    std::string_view rest = bytes.substr(lt);
    std::size_t close;
    if (rest.substr(0, 4) == "<!--") {
      close = rest.find("-->");
      if (close == std::string_view::npos) break;
      pos = lt + close + 3;
      continue;
    }
    if (rest.substr(0, 9) == "<![CDATA[") {
      close = rest.find("]]>");
      if (close == std::string_view::npos) break;
      // Raw text: protect it from the entity decoding at the element's end.
      if (!open.empty()) {
        for (char c : rest.substr(9, close - 9))
          open.back().text += c == '&' ? "&amp;" : std::string(1, c);
      }
      pos = lt + close + 3;
      continue;
    }
    close = rest.find('>');
    if (close == std::string_view::npos) break;
    pos = lt + close + 1;
    if (rest[1] == '!' || rest[1] == '?') continue;
    std::string_view tag = rest.substr(1, close - 1);
    // "</>" is a closing tag without a name, not an empty element too.
    const bool closing = !tag.empty() && tag.front() == '/';
    if (closing) tag.remove_prefix(1);
    const bool empty_element = !closing && !tag.empty() && tag.back() == '/';
    if (empty_element) tag.remove_suffix(1);
    const std::size_t name_end = tag.find_first_of(" \t\r\n");
    const std::string name = Lower(Trim(tag.substr(0, name_end)));
    if (closing) {
      if (open.empty()) break;
      const std::string& path = open.back().path;
      const std::size_t slash = path.rfind('/');
      if (path.compare(slash == std::string::npos ? 0 : slash + 1, std::string::npos, name) != 0) {
        *error = "element <" + name + "> closed inside another";
        return false;
      }
      for (const auto& [xml_path, key] : kCihxFields) {
        if (xml_path == path) {
          fields->emplace(std::string(key), DecodeEntities(Trim(open.back().text)));
        }
      }
      open.pop_back();
      if (open.empty()) return true;
      continue;
    }
    if (empty_element) continue;
    if (open.size() >= kMaxDepth) {
      *error = "elements nested too deeply";
      return false;
    }
    open.push_back({open.empty() ? name : open.back().path + "/" + name, {}});
  }
  *error = "the XML breaks off before </cih>";
  return false;
}

}  // namespace frfcam::camera
