#include "app/ctxteng/alarm/json_text.h"

#include <cjson/cJSON.h>

#include <cstdlib>
#include <memory>
#include <new>

namespace Ctxt {
namespace {

using Object = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

std::string Print(const cJSON* value) {
  const std::unique_ptr<char, decltype(&std::free)> text(cJSON_PrintUnformatted(value), &std::free);
  if (text == nullptr) throw std::bad_alloc();
  return text.get();
}

std::string PrintMembers(const JsonMembers& members, const char* colon, const char* comma) {
  std::string text = "{";
  for (const auto& [name, value] : members) {
    const Object key(cJSON_CreateString(name.c_str()), &cJSON_Delete);
    const std::string* const words = std::get_if<std::string>(&value);
    const Object member(words != nullptr ? cJSON_CreateString(words->c_str())
                                         : cJSON_CreateNumber(static_cast<double>(std::get<int64_t>(value))),
                        &cJSON_Delete);
    if (text.size() > 1) text += comma;
    text += Print(key.get()) + colon + Print(member.get());
  }
  return text + "}";
}

}  // namespace

std::string JsonText(const JsonMembers& members) { return PrintMembers(members, ":", ","); }

std::string SpacedJsonText(const JsonMembers& members) { return PrintMembers(members, ": ", ", "); }

}  // namespace Ctxt
