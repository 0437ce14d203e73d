#include "app/ctxteng/introspection/mps_config.h"

#include <cjson/cJSON.h>

#include <memory>

#include "framework/log/log.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

struct JsonDelete {
  void operator()(cJSON* value) const { cJSON_Delete(value); }
};

const char* StringMember(const cJSON* object, const char* name) {
  return cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, name));
}

// `failure` and `success` are the lines of the member.
std::string Read(const cJSON* object, const char* name, const char* failure, const char* success) {
  const char* const text = StringMember(object, name);
  if (text == nullptr) {
    ZLOG_CTX_ERROR(729, failure, "no such text");
    return "";
  }
  ZLOG_DEBUG(success, text);
  return text;
}

}  // namespace

MpsConfig ReadMpsConfig(const std::string& json) {
  ZLOG_DEBUG("AMConfig: Json string : %s", json.c_str());
  MpsConfig config;
  const std::unique_ptr<cJSON, JsonDelete> root(cJSON_ParseWithLength(json.data(), json.size()));
  if (!root) {
    ZLOG_CTX_ERROR(729, "AMConfig : Exception while parsing JSON string, %s", "it is not JSON");
    return config;
  }
  const cJSON* const solution = cJSON_GetObjectItemCaseSensitive(root.get(), "solution_config");
  if (!cJSON_IsObject(solution)) {
    ZLOG_CTX_ERROR(729, "AMConfig : Exception while retrieving solutionConfig from JSON, %s",
                   "no such object");
  } else {
    // The service's id is for the log alone.
    static_cast<void>(Read(solution, "service_id",
                           "AMConfig : Exception while retrieving service id from JSON, %s",
                           "AMConfig : service_id : %s"));
    config.solution_id =
        Read(solution, "solution_id", "AMConfig : Exception while retrieving solution_id from JSON, %s",
             "AMConfig : solution_id : %s");
    config.vendor_template_key =
        Read(solution, "vendor_template_key",
             "AMConfig : Exception while retrieving vendor_template_key from JSON, %s",
             "AMConfig : vendor template key : %s");
  }
  config.file_categories = Read(root.get(), "file_categories",
                                "AMConfig : Exception while retrieving file categories from JSON, %s",
                                "AMConfig : file types : %s");
  return config;
}

}  // namespace Ctxt
