// What is wrong with a file, each thing with its place, all of it at once.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "sfectl/config/Config.h"

namespace Sfectl {

struct Problem {
  Place place;
  std::string text;
};

class Problems {
 public:
  explicit Problems(std::string file) : file_(std::move(file)) {}

  void add(Place place, std::string text) { all_.push_back({place, std::move(text)}); }
  bool empty() const { return all_.empty(); }
  size_t size() const { return all_.size(); }
  const std::string& file() const { return file_; }
  // In the order of the file.
  std::vector<Problem> sorted() const;
  // "FILE:LINE:COLUMN: text" lines in the same order.
  std::vector<std::string> lines() const;

 private:
  std::string file_;
  std::vector<Problem> all_;
};

// Of those words the one that is most like `word`; empty when none is like it.
std::string nearestWord(std::string_view word, const std::vector<std::string>& known);
// "a, b or c".
std::string alternatives(const std::vector<std::string>& words);
// The text as it may stand between quotes in a message.
std::string inQuotes(std::string_view text);

// A file with problems: what() is their lines.
class FileError : public std::runtime_error {
 public:
  explicit FileError(Problems problems);
  size_t count() const { return problems_.size(); }
  const Problems& problems() const { return problems_; }

 private:
  Problems problems_;
};

}  // namespace Sfectl
