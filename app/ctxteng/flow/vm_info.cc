#include "app/ctxteng/flow/vm_info.h"

namespace Ctxt::PaceClient {

std::string ProcessKey(const ConnInfo& connection) {
  std::string key = std::to_string(connection.process_dfw_key);
  const std::string uid = std::to_string(connection.uid);
  key.reserve(key.size() + connection.sid.size() + uid.size());
  return key.append(connection.sid).append(uid);
}

}  // namespace Ctxt::PaceClient
