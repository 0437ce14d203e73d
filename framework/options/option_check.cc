// The daemon reads its files with boost's property trees, which lose the lines.  The parser of XML underneath
// is used here directly: a name's place in the text gives its line.  A tree of JSON keeps the order of the
// text, so the places of its names are found by looking for one after the other.

#include "framework/options/option_check.h"

#include <algorithm>
#include <boost/property_tree/detail/rapidxml.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string_view>

#include "framework/options/option_findings.h"

namespace zem::Tarvik {
namespace {

namespace xml = boost::property_tree::detail::rapidxml;
using boost::property_tree::ptree;

// A file of options has some kilobytes.
constexpr size_t kLargestFile = 1 << 20;
constexpr int kParse = xml::parse_normalize_whitespace | xml::parse_trim_whitespace;
constexpr std::string_view kBlanks = " \t\r\n";
// The parsers take a step down the stack for each level.
constexpr size_t kDeepest = 100;
constexpr const char* kTooDeep = "has more than 100 levels";
constexpr size_t kMostMissed = 100;

using Node = xml::xml_node<char>;

std::string NameOf(const Node& node) { return {node.name(), node.name_size()}; }

// All pieces of it, as the daemon's tree has them.
std::string TextOf(const Node& node) {
  std::string text;
  for (const Node* piece = node.first_node(); piece != nullptr; piece = piece->next_sibling()) {
    if (piece->type() == xml::node_data || piece->type() == xml::node_cdata)
      text.append(piece->value(), piece->value_size());
  }
  return text;
}

bool IsTooDeepXml(std::string_view text) {
  size_t depth = 0;
  for (size_t at = text.find('<'); at + 1 < text.size() && at != std::string_view::npos;
       at = text.find('<', at + 1)) {
    const char next = text[at + 1];
    if (next == '!' || next == '?') continue;
    if (next == '/') {
      if (depth > 0) --depth;
      continue;
    }
    const size_t end = text.find('>', at);
    const bool is_empty = end != std::string_view::npos && text[end - 1] == '/';
    if (!is_empty && ++depth > kDeepest) return true;
  }
  return false;
}

bool IsTooDeepJson(std::string_view text) {
  size_t depth = 0;
  bool quoted = false;
  for (size_t at = 0; at < text.size(); ++at) {
    const char c = text[at];
    if (c == '"') quoted = !quoted;
    if (quoted && c == '\\') ++at;
    if (quoted) continue;
    if ((c == '{' || c == '[') && ++depth > kDeepest) return true;
    if ((c == '}' || c == ']') && depth > 0) --depth;
  }
  return false;
}

class XmlChecker {
 public:
  explicit XmlChecker(const std::string& text) : text_(text), parsed_(text) {}

  /// The file that the text is; null, after a fault, when it is none.
  const OptionFile* Parse(OptionCheck* check) {
    if (IsTooDeepXml(text_)) {
      check->faults.push_back({0, {}, kTooDeep});
      return nullptr;
    }
    try {
      document_.parse<kParse>(parsed_.data());
    } catch (const xml::parse_error& error) {
      check->faults.push_back({LineOf(error.where<char>()), {}, std::string("is not XML: ") + error.what()});
      return nullptr;
    }
    const Node* const config = document_.first_node("config");
    std::string names;
    for (const OptionFile& file : OptionFiles()) {
      if (file.section.empty()) continue;
      section_ = config == nullptr ? nullptr : config->first_node(std::string(file.section).c_str());
      if (section_ != nullptr) return &file;
      names += (names.empty() ? "config." : ", config.") + std::string(file.section);
    }
    check->faults.push_back({0, {}, "has none of " + names + ", so the daemon does not start with it"});
    return nullptr;
  }

  void Look(OptionFindings* findings) { Look(*section_, {}, findings); }

 private:
  // Places are asked for in the order of the text, so that each line is counted once.
  int LineOf(const char* place) {
    const auto at = place - parsed_.data();
    line_ += static_cast<int>(std::count(text_.begin() + counted_, text_.begin() + at, '\n'));
    counted_ = at;
    return line_;
  }

  void Look(const Node& parent, const std::string& above, OptionFindings* findings) {
    for (const Node* node = parent.first_node(); node != nullptr; node = node->next_sibling()) {
      if (node->type() != xml::node_element) continue;
      const std::string key = above + NameOf(*node);
      const int line = LineOf(node->name());
      switch (findings->KindOf(above, NameOf(*node), line)) {
        case OptionFindings::Kind::kSection:
          Look(*node, key + ".", findings);
          break;
        case OptionFindings::Kind::kList:
          findings->Value(key, ListOf(*node), line);
          break;
        case OptionFindings::Kind::kValue:
          findings->Value(key, TextOf(*node), line);
          break;
        case OptionFindings::Kind::kKnown:
          break;
      }
    }
  }

  static std::string ListOf(const Node& list) {
    std::string text;
    for (const Node* node = list.first_node(); node != nullptr; node = node->next_sibling()) {
      if (node->type() == xml::node_element) text += (text.empty() ? "" : ", ") + TextOf(*node);
    }
    return text;
  }

  const std::string& text_;
  std::string parsed_;  // the parser writes into it
  xml::xml_document<char> document_;
  const Node* section_ = nullptr;
  std::ptrdiff_t counted_ = 0;
  int line_ = 1;
};

class JsonChecker {
 public:
  explicit JsonChecker(const std::string& text) : text_(text) {}

  const OptionFile* Parse(OptionCheck* check) {
    if (IsTooDeepJson(text_)) {
      check->faults.push_back({0, {}, kTooDeep});
      return nullptr;
    }
    try {
      std::istringstream in(text_);
      boost::property_tree::read_json(in, tree_);
    } catch (const boost::property_tree::json_parser_error& error) {
      check->faults.push_back({static_cast<int>(error.line()), {}, "is not JSON: " + error.message()});
      return nullptr;
    }
    const auto files = OptionFiles();
    return &*std::find_if(files.begin(), files.end(), [](const OptionFile& f) { return f.section.empty(); });
  }

  void Look(OptionFindings* findings) { Look(tree_, {}, findings); }

 private:
  // The line of the name, from which the next one is looked for.  One that is written in another way than it
  // reads is not found, and gets the line of the name before.
  int PassName(const std::string& name) {
    if (missed_ > kMostMissed) return line_;
    const std::string quoted = '"' + name + '"';
    for (size_t at = text_.find(quoted, place_); at != std::string::npos; at = text_.find(quoted, at + 1)) {
      const size_t next = text_.find_first_not_of(kBlanks, at + quoted.size());
      if (next == std::string::npos || text_[next] != ':') continue;
      line_ += static_cast<int>(std::count(text_.begin() + static_cast<std::ptrdiff_t>(place_),
                                           text_.begin() + static_cast<std::ptrdiff_t>(at), '\n'));
      place_ = at;
      return line_;
    }
    ++missed_;
    return line_;
  }

  void Look(const ptree& parent, const std::string& above, OptionFindings* findings) {
    for (const auto& [name, child] : parent) {
      if (name.empty()) continue;  // an element of an array has no name, and is no option
      const std::string key = above + name;
      const int line = PassName(name);
      const OptionFindings::Kind kind = findings->KindOf(above, name, line);
      if (kind == OptionFindings::Kind::kSection) {
        Look(child, key + ".", findings);
      } else if (kind == OptionFindings::Kind::kValue) {
        findings->Value(key, child.data(), line);
      }
    }
  }

  const std::string& text_;
  ptree tree_;
  size_t place_ = 0;
  int line_ = 1;
  size_t missed_ = 0;
};

template <class Checker>
std::string Run(const std::string& text, OptionCheck* check) {
  Checker checker(text);
  const OptionFile* const file = checker.Parse(check);
  if (file == nullptr) {
    check->unusable = true;
    return OptionsText(OptionFiles().front().rows, check->faults,
                       [](const OptionRow&) { return std::nullopt; });
  }
  OptionFindings findings(*file, check);
  checker.Look(&findings);
  findings.Finish();
  return OptionsText(file->rows, check->faults,
                     [&findings](const OptionRow& row) { return findings.Given(row); });
}

bool LooksLikeJson(const std::string& text) {
  const size_t first = text.find_first_not_of(kBlanks);
  return first != std::string::npos && (text[first] == '{' || text[first] == '[');
}

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
  } else if (text.size() > kLargestFile) {
    check.faults.push_back({0, {}, "is larger than 1 MiB"});
  }
  if (!check.faults.empty()) {
    check.unusable = true;
    check.json =
        OptionsText(OptionFiles().front().rows, check.faults, [](const OptionRow&) { return std::nullopt; });
    return check;
  }
  check.json = LooksLikeJson(text) ? Run<JsonChecker>(text, &check) : Run<XmlChecker>(text, &check);
  return check;
}

std::string FaultLines(const std::string& path, const OptionCheck& check) {
  std::string lines;
  for (const OptionFault& fault : check.faults) {
    lines += path;
    if (fault.line > 0) lines += ":" + std::to_string(fault.line);
    std::string text = (fault.key.empty() ? std::string() : fault.key + " ") + fault.what;
    // A name in a file may have any bytes, also those that steer a terminal.
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < ' '; }, '?');
    lines += ": " + text + "\n";
  }
  return lines;
}

}  // namespace zem::Tarvik
