#pragma once

namespace zem::covedb {

/// The states of the store client's connection.
enum class ClientState {
  NONE = 0,
  INIT,                        // constructed; left by Start
  CONNECTING,                  // asks for the data stub, again and again
  REQUEST_OPS_STUB,            // has the data stub, asks for the schema calls' stub
  REQUEST_DAEMON_HEALTH_STUB,  // has both, asks for the health stub
  CONNECTED,                   // has all; left when the data stub's channel ends
  DISCONNECTED,                // drops the stubs and goes on to CONNECTING at once
  ERROR,
};

/// Returns the state's name for the log; "<INVALID>" for a value that is no state.
const char* ClientStateName(ClientState state);

}  // namespace zem::covedb
