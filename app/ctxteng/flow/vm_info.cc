#include "app/ctxteng/flow/vm_info.h"

namespace Ctxt::PaceClient {

std::string ProcessKey(const ConnInfo& connection) {
  return std::to_string(connection.process_dfw_key) + connection.sid + std::to_string(connection.uid);
}

}  // namespace Ctxt::PaceClient
