#include "sim/replay/likeness.h"

#include <boost/regex.hpp>

namespace zem::sim {
namespace {

// The kinds of names, each in parentheses.
const boost::regex& Names() {
  static const boost::regex names(
      "([0-9a-f]{8}(?:-[0-9a-f]{4}){3}-[0-9a-f]{12})|(\\b[0-9a-f]{32,128}\\b)|(\\b[0-9]{10,20}\\b)|"
      "([0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:.]{8,20}Z?|"
      "\\b[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4}\\b)");
  return names;
}
constexpr const char* kWords[] = {"<uuid>", "<digest>", "<number>", "<time>"};

}  // namespace

void Likeness::Mention(const std::string& text, std::set<std::string>* names) {
  for (boost::sregex_iterator name(text.begin(), text.end(), Names()), end; name != end; ++name)
    names->insert(name->str());
}

std::string Likeness::Of(const std::string& text) const {
  std::string alike;
  auto from = text.begin();
  for (boost::sregex_iterator name(text.begin(), text.end(), Names()), end; name != end; ++name) {
    const std::string whole = name->str();
    if (given_.contains(whole) || (first_.contains(whole) && second_.contains(whole))) continue;
    alike.append(from, (*name)[0].first);
    for (int kind = 1; kind <= 4; ++kind) {
      if ((*name)[kind].matched) alike += kWords[kind - 1];
    }
    from = (*name)[0].second;
  }
  alike.append(from, text.end());
  return alike;
}

}  // namespace zem::sim
