#include "type_names.h"

#include <cxxabi.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <numeric>
#include <vector>

namespace zorvix::detail {
namespace {

constexpr std::size_t kMostEdits = 2;

void ReplaceAll(std::string& text, const std::string& part, const std::string& by) {
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += by.size()) {
    text.replace(at, part.size(), by);
  }
}

bool AreEqualButForCase(const std::string& one, const std::string& other) {
  return std::equal(
      one.begin(), one.end(), other.begin(), other.end(),
      [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); });
}

// The Levenshtein distance.
std::size_t CountEdits(const std::string& one, const std::string& other) {
  // Of the prefix of `one` that has been looked at, to each prefix of `other`.
  std::vector<std::size_t> edits(other.size() + 1);
  std::iota(edits.begin(), edits.end(), 0);
  for (std::size_t row = 0; row < one.size(); ++row) {
    std::size_t diagonal = row;
    edits[0] = row + 1;
    for (std::size_t column = 0; column < other.size(); ++column) {
      const std::size_t above = edits[column + 1];
      const std::size_t replaced = diagonal + (one[row] == other[column] ? 0 : 1);
      edits[column + 1] = std::min({above + 1, edits[column] + 1, replaced});
      diagonal = above;
    }
  }
  return edits.back();
}

}  // namespace

std::string NameOfType(const std::type_info& type) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> demangled(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
  std::string name = demangled == nullptr ? type.name() : demangled.get();
  // The inline namespaces of the standard libraries.
  for (const char* const in : {"std::__cxx11::", "std::__1::", "std::__ndk1::"}) {
    ReplaceAll(name, in, "std::");
  }
  // Some demanglers write "> >".
  const std::string string = "std::basic_string<char, std::char_traits<char>, std::allocator<char>";
  ReplaceAll(name, string + " >", "std::string");
  ReplaceAll(name, string + ">", "std::string");
  return name;
}

bool AreSimilar(const std::string& one, const std::string& other) {
  if (AreEqualButForCase(one, other)) return true;
  const auto [shorter, longer] = std::minmax({one.size(), other.size()});
  // Short names have little in common even if few edits are between them.
  if (longer - shorter > kMostEdits || shorter <= kMostEdits) return false;
  return CountEdits(one, other) <= kMostEdits;
}

}  // namespace zorvix::detail
