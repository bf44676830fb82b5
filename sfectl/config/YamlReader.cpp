#include "sfectl/config/YamlReader.h"

#include <charconv>
#include <cstring>
#include <map>
#include <regex>
#include <utility>

namespace Sfectl {
namespace {

bool isPlain(const YAML::Node& node) {
  return node.IsScalar() && node.Tag() == "?";
}

// Plain scalars of other types than text are short, and begin with one of those letters.
bool mayBe(const YAML::Node& node, const char* first) {
  constexpr size_t kMaxBytes = 64;
  const std::string& text = node.Scalar();
  return isPlain(node) && !text.empty() && text.size() <= kMaxBytes &&
         std::strchr(first, text[0]) != nullptr;
}

bool isBoolean(const YAML::Node& node) {
  static const std::regex pattern("true|True|TRUE|false|False|FALSE");
  return mayBe(node, "tTfF") && std::regex_match(node.Scalar(), pattern);
}

bool isNumber(const YAML::Node& node) {
  static const std::regex pattern(
      "[-+]?[0-9]+|0x[0-9a-fA-F]+|0o[0-7]+|[-+]?(\\.[0-9]+|[0-9]+(\\.[0-9]*)?)"
      "([eE][-+]?[0-9]+)?|[-+]?\\.(inf|Inf|INF)|\\.(nan|NaN|NAN)");
  return mayBe(node, "-+.0123456789") && std::regex_match(node.Scalar(), pattern);
}

}  // namespace

Place placeOf(const YAML::Node& node) {
  const YAML::Mark mark = node.Mark();
  return mark.is_null() ? Place{} : Place{mark.line + 1, mark.column + 1};
}

std::string nodeText(const YAML::Node& node) {
  if (!node.IsDefined() || node.IsNull()) {
    return "nothing";
  }
  if (node.IsMap()) {
    return "a mapping";
  }
  if (node.IsSequence()) {
    return "a list";
  }
  if (isNumber(node)) {
    return "the number " + node.Scalar();
  }
  return isBoolean(node) ? node.Scalar() : "the text " + inQuotes(node.Scalar());
}

void YamlReader::expected(const YAML::Node& node,
                          const std::string& what,
                          const std::string& right) {
  wrong(node, what + " is " + nodeText(node) + "; expected " + right);
}

std::optional<std::string> YamlReader::text(const YAML::Node& node, const std::string& what) {
  if (!node.IsScalar()) {
    expected(node, what, "a text");
    return std::nullopt;
  }
  if (isNumber(node) || isBoolean(node)) {
    expected(node, what, "a text; put it into quotes if you mean \"" + node.Scalar() + "\"");
    return std::nullopt;
  }
  return node.Scalar();
}

std::optional<uint32_t> YamlReader::number(const YAML::Node& node,
                                           const std::string& what,
                                           uint32_t low,
                                           uint32_t high) {
  const std::string range = "a number of " + std::to_string(low) + " to " + std::to_string(high);
  if (!isNumber(node)) {
    expected(node, what, range);
    return std::nullopt;
  }
  const std::string& digits = node.Scalar();
  uint32_t value = 0;
  const char* end = digits.data() + digits.size();
  const auto [rest, error] = std::from_chars(digits.data(), end, value);
  const bool padded = digits.size() > 1 && digits[0] == '0';
  if (error != std::errc() || rest != end || padded || value < low || value > high) {
    wrong(node, what + " is " + inQuotes(digits) + "; expected " + range);
    return std::nullopt;
  }
  return value;
}

std::optional<bool> YamlReader::asBoolean(const YAML::Node& node) {
  if (!isBoolean(node)) {
    return std::nullopt;
  }
  return node.Scalar()[0] == 't' || node.Scalar()[0] == 'T';
}

std::optional<bool> YamlReader::boolean(const YAML::Node& node, const std::string& what) {
  const std::optional<bool> value = asBoolean(node);
  if (!value.has_value()) {
    expected(node, what, "true or false");
  }
  return value;
}

std::optional<size_t> YamlReader::word(const YAML::Node& node,
                                       const std::string& what,
                                       const std::vector<std::string>& words) {
  if (node.IsScalar()) {
    for (size_t i = 0; i < words.size(); ++i) {
      if (words[i] == node.Scalar()) {
        return i;
      }
    }
  }
  expected(node, what, alternatives(words));
  return std::nullopt;
}

void YamlReader::list(const YAML::Node& node,
                      const std::string& what,
                      const std::function<void(const YAML::Node&)>& each) {
  if (node.IsNull()) {
    return;
  }
  if (!node.IsSequence()) {
    expected(node, what, "a list: [...], or lines that begin with '- '");
    return;
  }
  for (const YAML::Node& item : node) {
    each(item);
  }
}

void YamlReader::named(
    const YAML::Node& node,
    const std::string& what,
    const std::function<void(const std::string&, const YAML::Node&, const YAML::Node&)>& each) {
  if (node.IsNull()) {
    return;
  }
  if (!node.IsMap()) {
    expected(node, what, "a mapping: lines of the form 'NAME: ...'");
    return;
  }
  std::map<std::string, Place> seen;
  for (const auto& entry : node) {
    if (!entry.first.IsScalar()) {
      wrong(entry.first,
            "a name in " + what + " is " + nodeText(entry.first) + "; expected a text");
      continue;
    }
    const std::string& name = entry.first.Scalar();
    const auto [first, isNew] = seen.emplace(name, placeOf(entry.first));
    if (!isNew) {
      wrong(entry.first, inQuotes(name) + " appears twice in " + what + ", first in line " +
                             std::to_string(first->second.line) + "; expected each name once");
      continue;
    }
    each(name, entry.first, entry.second);
  }
}

KeyReader::KeyReader(YamlReader& reader, const YAML::Node& node, std::string what)
    : reader_(reader), what_(std::move(what)), place_(placeOf(node)) {
  if (node.IsNull()) {
    return;
  }
  if (!node.IsMap()) {
    isMap_ = false;
    reader.wrong(node, what_ + " is " + nodeText(node) + "; expected a mapping: KEY: VALUE");
    return;
  }
  reader.named(node, what_,
               [&](const std::string& name, const YAML::Node& key, const YAML::Node& value) {
                 entries_.push_back({name, placeOf(key), value});
               });
}

void KeyReader::take(const std::string& key, const std::function<void(const YAML::Node&)>& use) {
  known_.push_back(key);
  for (Entry& entry : entries_) {
    if (entry.key == key) {
      entry.taken = true;
      use(entry.value);
    }
  }
}

void KeyReader::need(const std::string& key,
                     const std::string& example,
                     const std::function<void(const YAML::Node&)>& use) {
  bool found = false;
  take(key, [&](const YAML::Node& node) {
    found = true;
    use(node);
  });
  if (!found && isMap_) {
    reader_.wrong(place_, what_ + " has no '" + key + "'; expected " + example);
  }
}

void KeyReader::finish() {
  for (const Entry& entry : entries_) {
    if (entry.taken) {
      continue;
    }
    const std::string nearest = nearestWord(entry.key, known_);
    reader_.wrong(entry.place, "unknown key " + inQuotes(entry.key) + " in " + what_ + "; " +
                                   (nearest.empty() ? "expected " + alternatives(known_)
                                                    : "did you mean '" + nearest + "'?"));
  }
}

}  // namespace Sfectl
