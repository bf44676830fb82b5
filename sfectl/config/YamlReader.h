// YAML nodes as typed values; what does not fit becomes a problem at the node's place.
//
// Plain scalars have the types of YAML's core schema: `10` is a number, `"10"` and `eth10` are
// texts, true and false are booleans. A value that is left empty is an empty list or mapping.
#pragma once

#include <yaml-cpp/yaml.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "sfectl/config/Problems.h"

namespace Sfectl {

Place placeOf(const YAML::Node& node);

// "a list", "the number 7", "the text 'x'".
std::string nodeText(const YAML::Node& node);

class YamlReader {
 public:
  explicit YamlReader(Problems& problems) : problems_(problems) {}

  void wrong(const YAML::Node& node, const std::string& text) {
    problems_.add(placeOf(node), text);
  }
  void wrong(Place place, const std::string& text) { problems_.add(place, text); }

  // `what` names the value in the message: "mtu", "the port's name".
  // Returns: nothing after a problem.
  std::optional<std::string> text(const YAML::Node& node, const std::string& what);
  std::optional<uint32_t> number(const YAML::Node& node,
                                 const std::string& what,
                                 uint32_t low,
                                 uint32_t high);
  static std::optional<bool> asBoolean(const YAML::Node& node);  // never a problem
  std::optional<bool> boolean(const YAML::Node& node, const std::string& what);
  // One of those words, as its position.
  std::optional<size_t> word(const YAML::Node& node,
                             const std::string& what,
                             const std::vector<std::string>& words);
  // Calls `each` for every item.
  void list(const YAML::Node& node,
            const std::string& what,
            const std::function<void(const YAML::Node&)>& each);
  // Calls `each` for every entry of a mapping whose keys are names; a name that appears twice is a
  // problem and is left out.
  void named(
      const YAML::Node& node,
      const std::string& what,
      const std::function<
          void(const std::string& name, const YAML::Node& key, const YAML::Node& value)>& each);

 private:
  void expected(const YAML::Node& node, const std::string& what, const std::string& right);

  Problems& problems_;
};

// A mapping with a fixed set of keys: take() each of them, then finish() reports the others.
class KeyReader {
 public:
  // `what` is "a port", "a route".
  KeyReader(YamlReader& reader, const YAML::Node& node, std::string what);

  // Calls `use` when the key is there.
  void take(const std::string& key, const std::function<void(const YAML::Node&)>& use);
  // As take(); a missing key is a problem that says what is to be written: "devargs: DEVICE".
  void need(const std::string& key,
            const std::string& example,
            const std::function<void(const YAML::Node&)>& use);
  void finish();

  Place place() const { return place_; }

 private:
  struct Entry {
    std::string key;
    Place place;
    YAML::Node value;
    bool taken = false;
  };
  YamlReader& reader_;
  std::string what_;
  Place place_;
  bool isMap_ = true;
  std::vector<Entry> entries_;
  std::vector<std::string> known_;
};

}  // namespace Sfectl
