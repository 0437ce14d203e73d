#include <iterator>

#include "app/ctxteng/base/conn_info.h"
#include "app/ctxteng/base/user_session_info.h"

namespace Ctxt {

const char* ConnTypeName(uint32_t type) {
  constexpr const char* kNames[] = {"CONN_TYPE_INVALID",    "CONN_TYPE_PRE_CONNECT",  "CONN_TYPE_CONNECT",
                                    "CONN_TYPE_DISCONNECT", "CONN_TYPE_LISTEN_START", "CONN_TYPE_LISTEN_STOP",
                                    "CONN_TYPE_LISTEN_STOP"};
  return type < std::size(kNames) ? kNames[type] : "CONN_TYPE_INVALID";
}

const char* SessionTypeName(uint32_t type) {
  constexpr const char* kNames[] = {
      "SESSION_TYPE_INVALID",    "SESSION_TYPE_LOGON",      "SESSION_TYPE_LOGOFF",
      "SESSION_TYPE_CONNECT",    "SESSION_TYPE_DISCONNECT", "SESSION_TYPE_TTY_LOGIN",
      "SESSION_TYPE_TTY_LOGOUT", "SESSION_TYPE_PTS_LOGIN",  "SESSION_TYPE_PTS_LOGOUT"};
  return type < std::size(kNames) ? kNames[type] : "SESSION_TYPE_UNKNOWN";
}

}  // namespace Ctxt
