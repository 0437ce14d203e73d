#pragma once

#include <memory>

#include "mpaclient/mpa_client.h"

namespace zem {

/// What every client is made of.
struct MpaClientArguments {
  AsioZemProvider& provider;
  MpaClient::ReceiveCallback callback;
  std::string name;
  std::string id;
  uint32_t client_type;
  uint16_t port;
};

/// The client of a vertical by its name: with its own RPC road when the vertical has one, else the plain one.
std::shared_ptr<MpaClient> MakeMpaClient(MpaClientArguments arguments);

}  // namespace zem
