#pragma once

#include <memory>

namespace Ctxt {

class Ids;

/// The agent's intrusion detection client.
const std::shared_ptr<Ids>& IdsOfAgent();

}  // namespace Ctxt
