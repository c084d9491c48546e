#include "camera/numbered_files.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <map>
#include <system_error>
#include <utility>

#include "platform/platform.h"

namespace frfcam::camera {
namespace fs = std::filesystem;

namespace {

struct Numbered {
  std::uint64_t number;
  std::string name;
};

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

std::string Lower(std::string s) {
  for (char& c : s) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return s;
}

// Splits `name` (extension `ext` already stripped off) around its last run
// of digits into the sequence's key and the number. False without digits,
// or with a number too long to be a frame's (more than 18 digits).
bool SplitNumber(const std::string& stem, const std::string& ext, std::string* key,
                 std::uint64_t* number) {
  std::size_t end = stem.size();
  while (end > 0 && !IsDigit(stem[end - 1])) --end;
  if (end == 0) return false;
  std::size_t begin = end;
  while (begin > 0 && IsDigit(stem[begin - 1])) --begin;
  std::size_t first = begin;
  while (first + 1 < end && stem[first] == '0') ++first;
  if (end - first > 18) return false;
  std::uint64_t n = 0;
  for (std::size_t i = first; i < end; ++i) n = n * 10 + static_cast<std::uint64_t>(stem[i] - '0');
  // The key reads like the sequence's names, for the messages: frame<n>.tif.
  *key = stem.substr(0, begin) + "<n>" + stem.substr(end) + Lower(ext);
  *number = n;
  return true;
}

}  // namespace

bool IsFolder(const std::string& path) {
  std::error_code ec;
  return fs::is_directory(platform::PathFromUtf8(path), ec);
}

bool ListNumberedFiles(const std::string& folder, const std::vector<std::string>& extensions,
                       NumberedFiles* out, std::string* error) {
  out->paths.clear();
  out->notes.clear();
  std::map<std::string, std::vector<Numbered>> groups;
  std::size_t others = 0;
  std::error_code ec;
  for (fs::directory_iterator it(platform::PathFromUtf8(folder), ec), end; !ec && it != end;
       it.increment(ec)) {
    std::error_code entry_ec;
    if (!it->is_regular_file(entry_ec)) continue;
    const std::string name = it->path().filename().string();
    const std::size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0) continue;
    const std::string ext = name.substr(dot);
    if (std::find(extensions.begin(), extensions.end(), Lower(ext)) == extensions.end()) continue;
    std::string key;
    std::uint64_t number = 0;
    if (SplitNumber(name.substr(0, dot), ext, &key, &number)) {
      groups[key].push_back({number, name});
    } else {
      ++others;
    }
  }
  if (ec) {
    *error = "cannot list " + folder + ": " + ec.message();
    return false;
  }
  if (groups.empty()) {
    *error = folder + ": no numbered";
    for (std::size_t i = 0; i < extensions.size(); ++i) {
      *error += (i == 0 ? " " : i + 1 == extensions.size() ? " or " : ", ") + extensions[i];
    }
    *error += " files";
    return false;
  }
  // The largest sequence, and the next largest: a folder holding two
  // recordings cannot say which one is meant.
  auto best = groups.end(), second = groups.end();
  for (auto g = groups.begin(); g != groups.end(); ++g) {
    if (best == groups.end() || g->second.size() > best->second.size()) {
      second = best;
      best = g;
    } else if (second == groups.end() || g->second.size() > second->second.size()) {
      second = g;
    }
  }
  if (second != groups.end() && second->second.size() >= 2) {
    *error = folder + " holds two numbered sequences, " + best->first + " (" +
             std::to_string(best->second.size()) + " files) and " + second->first + " (" +
             std::to_string(second->second.size()) + " files); move one away";
    return false;
  }
  others += groups.size() - 1;

  std::vector<Numbered>& files = best->second;
  std::sort(files.begin(), files.end(),
            [](const Numbered& a, const Numbered& b) { return a.number < b.number; });
  std::uint64_t missing = 0;
  for (std::size_t i = 1; i < files.size(); ++i) {
    if (files[i].number == files[i - 1].number) {
      *error = folder + ": " + files[i - 1].name + " and " + files[i].name +
               " carry the same frame number";
      return false;
    }
    missing += files[i].number - files[i - 1].number - 1;
  }
  std::string dir = folder;
  if (!dir.empty() && dir.back() != '/' && dir.back() != platform::kPathSeparator) {
    dir += platform::kPathSeparator;
  }
  out->paths.reserve(files.size());
  for (const Numbered& f : files) out->paths.push_back(dir + f.name);

  if (missing != 0) {
    out->notes = std::to_string(missing) + " frame numbers missing between " +
                 std::to_string(files.front().number) + " and " +
                 std::to_string(files.back().number) + " (frames are the files in order)";
  }
  if (others != 0) {
    if (!out->notes.empty()) out->notes += "; ";
    out->notes += std::to_string(others) + " other " + (others == 1 ? "file" : "files") +
                  " of the folder left out";
  }
  return true;
}

}  // namespace frfcam::camera
