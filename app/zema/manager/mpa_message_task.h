#pragma once

#include "app/zema/manager/mpa_message_sender.h"
#include "framework/tasks/mpa_message_task.h"

namespace zem::zema {

/// A task of the realization that carries one message from the manager; replies go out through
/// MpaMessageSender.
template <class Msg>
using MpaMessageTask = zem::MpaMessageTask<MpaMessageSender, Msg>;

}  // namespace zem::zema
