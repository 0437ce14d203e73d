#pragma once

#include <cstdint>
#include <memory>

#include "app/ctxteng/idfw/login_logoff_info.h"

namespace zem::bench {

/// A logon as a guest causes it.
std::unique_ptr<Ctxt::LoginLogoffInfo> Logon(uint32_t number);

/// An event's way into the cache, and how long it takes while a batch is under way.
bool RunEvents(uint32_t events);
/// Batches of 1000 events over the real channel.
bool RunBatches(int batches);
/// More events than the cache takes, with a manager that answers after a while.
bool RunLimit(uint32_t events);

}  // namespace zem::bench
