// The daemon's reading loses the lines.  Its parser is the one of boost's property tree underneath, which is
// used here directly: a name's place in the text gives its line.

#include "framework/options/option_check.h"

#include <algorithm>
#include <boost/property_tree/detail/rapidxml.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string_view>

#include "platform/core/nearest_name.h"

namespace zem::Tarvik {
namespace {

namespace xml = boost::property_tree::detail::rapidxml;

// A file of options has some kilobytes.
constexpr size_t kLargestFile = 1 << 20;
constexpr int kParse = xml::parse_normalize_whitespace | xml::parse_trim_whitespace;

class Checker {
 public:
  explicit Checker(std::string text) : text_(std::move(text)), parsed_(text_) {}

  void Run(OptionCheck* check) {
    check_ = check;
    try {
      document_.parse<kParse>(parsed_.data());
    } catch (const xml::parse_error& error) {
      check->faults.push_back({LineOf(error.where<char>()), {}, std::string("is not XML: ") + error.what()});
      check->unusable = true;
      return;
    }
    const xml::xml_node<char>* const config = document_.first_node("config");
    const xml::xml_node<char>* const tarvik = config != nullptr ? config->first_node("tarvik") : nullptr;
    if (tarvik == nullptr) {
      check->faults.push_back({0, {}, "has no config.tarvik, so the daemon does not start"});
      check->unusable = true;
      return;
    }
    Look(*tarvik, {});
  }

  std::optional<std::string> Given(const OptionRow& row) const {
    const auto found = given_.find(row.key);
    return found == given_.end() ? std::nullopt : std::optional(found->second);
  }

 private:
  int LineOf(const char* place) const {
    const auto end = text_.begin() + (place - parsed_.data());
    return 1 + static_cast<int>(std::count(text_.begin(), end, '\n'));
  }

  static bool IsSection(const std::string& key) {
    return std::any_of(std::begin(kOptionRows), std::end(kOptionRows), [&key](const OptionRow& row) {
      return row.key.size() > key.size() && row.key.substr(0, key.size()) == key &&
             row.key[key.size()] == '.';
    });
  }

  void Add(const xml::xml_node<char>& node, const std::string& key, std::string what) {
    check_->faults.push_back({LineOf(node.name()), key, std::move(what)});
  }

  void Look(const xml::xml_node<char>& parent, const std::string& above) {
    for (const auto* node = parent.first_node(); node != nullptr; node = node->next_sibling()) {
      if (node->type() != xml::node_element) continue;
      const std::string key = above + std::string(node->name(), node->name_size());
      if (IsSection(key)) {
        if (sections_.insert(key).second) {
          Look(*node, key + ".");
        } else {
          Add(*node, key, "is a section that was there before; only the first one counts");
        }
      } else {
        LookAtOption(*node, key);
      }
    }
  }

  void LookAtOption(const xml::xml_node<char>& node, const std::string& key) {
    const OptionRow* const row = FindOption(key);
    if (row == nullptr) {
      std::vector<std::string_view> names;
      for (const OptionRow& known : kOptionRows) names.push_back(known.key);
      const std::string_view nearest = NearestName(key, names);
      Add(node, key,
          "is no option, and is ignored" +
              (nearest.empty() ? std::string() : "; did you mean " + std::string(nearest) + "?"));
      return;
    }
    const std::string text(node.value(), node.value_size());
    if (!given_.try_emplace(row->key, text).second) {
      Add(node, key, "stands here again; the first one counts");
      return;
    }
    if (std::string fault = ValueFault(*row, text); !fault.empty()) Add(node, key, std::move(fault));
  }

  const std::string text_;
  std::string parsed_;  // the parser writes into it
  xml::xml_document<char> document_;
  std::map<std::string_view, std::string> given_;
  std::set<std::string> sections_;
  OptionCheck* check_ = nullptr;
};

}  // namespace

OptionCheck CheckOptions(const std::string& path) {
  OptionCheck check;
  std::ifstream file(path, std::ios::binary);
  std::string text;
  if (file) {
    text.resize(kLargestFile + 1);
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<size_t>(file.gcount()));
  }
  if (!file.is_open() || file.bad() || (text.empty() && !file.eof())) {
    check.faults.push_back({0, {}, std::string("cannot be read: ") + std::strerror(errno)});
    check.unusable = true;
  } else if (text.size() > kLargestFile) {
    check.faults.push_back({0, {}, "is larger than 1 MiB"});
    check.unusable = true;
  }
  Checker checker(check.unusable ? std::string() : std::move(text));
  if (!check.unusable) checker.Run(&check);
  check.json = OptionsText(check.faults, [&checker](const OptionRow& row) { return checker.Given(row); });
  return check;
}

std::string FaultLines(const std::string& path, const OptionCheck& check) {
  std::string lines;
  for (const OptionFault& fault : check.faults) {
    lines += path;
    if (fault.line > 0) lines += ":" + std::to_string(fault.line);
    lines += ": " + (fault.key.empty() ? std::string() : fault.key + " ") + fault.what + "\n";
  }
  return lines;
}

}  // namespace zem::Tarvik
