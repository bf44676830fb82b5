#include "sfectl/config/Problems.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "sfectl/Report.h"

namespace Sfectl {
namespace {

constexpr size_t kMaxQuoted = 80;

// Insertions, deletions and replacements that make one word of the other.
size_t distance(std::string_view a, std::string_view b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) {
    row[j] = j;
  }
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t above = row[j];
      row[j] = std::min({above + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row.back();
}

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) {
    text += (text.empty() ? "" : "\n") + line;
  }
  return text;
}

}  // namespace

std::vector<Problem> Problems::sorted() const {
  std::vector<Problem> result = all_;
  std::stable_sort(result.begin(), result.end(), [](const Problem& a, const Problem& b) {
    return std::tie(a.place.line, a.place.column) < std::tie(b.place.line, b.place.column);
  });
  return result;
}

std::vector<std::string> Problems::lines() const {
  std::vector<std::string> result;
  for (const Problem& problem : sorted()) {
    std::string where = printable(file_) + ":";
    if (problem.place.line > 0) {
      where += std::to_string(problem.place.line) + ":";
      where += problem.place.column > 0 ? std::to_string(problem.place.column) + ":" : "";
    }
    result.push_back(where + " " + problem.text);
  }
  return result;
}

std::string nearestWord(std::string_view word, const std::vector<std::string>& known) {
  constexpr size_t kMaxWord = 64;  // a longer one is no misspelling
  std::string best;
  size_t least = word.size() > kMaxWord ? 0 : std::max<size_t>(2, word.size() / 3) + 1;
  for (const std::string& candidate : known) {
    // What is cut off is nearer than what has other letters.
    const bool cut = word.size() > 2 && candidate.starts_with(word);
    const size_t far = least == 0 || cut ? 0 : distance(word, candidate);
    if (far < least) {
      least = far;
      best = candidate;
    }
  }
  return best;
}

std::string alternatives(const std::vector<std::string>& words) {
  std::string text;
  for (size_t i = 0; i < words.size(); ++i) {
    text += i == 0 ? "" : i + 1 == words.size() ? " or " : ", ";
    text += words[i];
  }
  return text;
}

std::string inQuotes(std::string_view text) {
  const bool cut = text.size() > kMaxQuoted;
  return "'" + printable(text.substr(0, kMaxQuoted)) + (cut ? "..." : "") + "'";
}

FileError::FileError(Problems problems)
    : std::runtime_error(joined(problems.lines())), problems_(std::move(problems)) {}

}  // namespace Sfectl
