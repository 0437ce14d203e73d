#include "app/ctxteng/flow/aggregator.h"

#include <array>
#include <utility>

#include "app/ctxteng/flow/flow_statistics.h"
#include "framework/log/log.h"

namespace Ctxt::PaceClient {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

using Counter = FlowStatistics::Counter;

struct SessionKind {
  uint32_t session_type;
  UserEventType type;
  Counter FlowStatistics::*counter;
};
constexpr std::array kSessionKinds = {
    SessionKind{SESSION_TYPE_LOGON, USER_LOGON, &FlowStatistics::user_logon_events},
    SessionKind{SESSION_TYPE_TTY_LOGIN, USER_LOGON, &FlowStatistics::user_logon_events},
    SessionKind{SESSION_TYPE_PTS_LOGIN, USER_LOGON, &FlowStatistics::user_logon_events},
    SessionKind{SESSION_TYPE_LOGOFF, USER_LOGOFF, &FlowStatistics::user_logoff_events},
    SessionKind{SESSION_TYPE_TTY_LOGOUT, USER_LOGOFF, &FlowStatistics::user_logoff_events},
    SessionKind{SESSION_TYPE_PTS_LOGOUT, USER_LOGOFF, &FlowStatistics::user_logoff_events},
    SessionKind{SESSION_TYPE_CONNECT, USER_CONNECT, &FlowStatistics::user_connect_events},
    SessionKind{SESSION_TYPE_DISCONNECT, USER_DISCONNECT, &FlowStatistics::user_disconnect_events},
};

const SessionKind* KindOf(uint32_t session_type) {
  for (const SessionKind& kind : kSessionKinds) {
    if (kind.session_type == session_type) return &kind;
  }
  return nullptr;
}

struct ServiceKind {
  uint32_t conn_type;
  ServiceEventType type;
  Counter FlowStatistics::*counter;
};
constexpr std::array kServiceKinds = {
    ServiceKind{CONN_TYPE_LISTEN_START, LISTEN_START, &FlowStatistics::service_listen_start_events},
    ServiceKind{CONN_TYPE_LISTEN_STOP, LISTEN_STOP, &FlowStatistics::service_listen_stop_events},
};

void Count(Counter& counter) { counter.fetch_add(1, std::memory_order_relaxed); }

template <class Event>
bool HasUser(const Event& event) {
  return !event.sid.empty() || event.uid != -1;
}

// Hands out as many values as the queue had at the beginning.
template <class T, class Handler>
uint32_t DrainQueue(EventQueue<T>& queue, const Handler& handle) {
  const uint32_t held = queue.count();
  uint32_t taken = 0;
  for (T value; taken < held && queue.TryPop(&value); ++taken) handle(std::move(value));
  return taken;
}

}  // namespace

void Aggregator::Drain(FlowQueues& queues) {
  ZLOG_DEBUG("Zemi: Aggregating newly reported VM events");
  const uint32_t vms = DrainVms(queues);
  ZLOG_DEBUG("Zemi: No. of VM events processed: %d, Q size after aggregration: %u", static_cast<int>(vms),
             queues.vms.count());
  ZLOG_DEBUG("Zemi: Aggregating newly reported conn events");
  const uint32_t connections = DrainConnections(queues);
  ZLOG_DEBUG("Zemi: No. of conn events processed: %d, Q size after aggregration: %u",
             static_cast<int>(connections), queues.connections.count());
  ZLOG_DEBUG("Zemi: Aggregating newly reported user events");
  const uint32_t users = DrainUsers(queues);
  ZLOG_DEBUG("Zemi: No. of userSession events processed: %d, Q size afteraggregration: %u",
             static_cast<int>(users), queues.users.count());
}

uint32_t Aggregator::DrainVms(FlowQueues& queues) {
  return DrainQueue(queues.vms, [this](std::shared_ptr<const VmEvent> event) { Take(std::move(event)); });
}

uint32_t Aggregator::DrainConnections(FlowQueues& queues) {
  return DrainQueue(queues.connections,
                    [this](std::shared_ptr<const ConnInfo> connection) { Take(std::move(connection)); });
}

uint32_t Aggregator::DrainUsers(FlowQueues& queues) {
  return DrainQueue(queues.users,
                    [this](std::shared_ptr<const UserSessionInfo> session) { Take(std::move(session)); });
}

bool Aggregator::HasRoom() {
  if (events_ < kMostEvents) {
    ++events_;
    return true;
  }
  if (events_ == kMostEvents) {
    ++events_;
    ZLOG_WARN("Zemi: %u events wait for the next report, dropping more until then", kMostEvents);
  }
  Count(statistics_.dropped);
  return false;
}

VmInfo& Aggregator::GuestOf(const std::string& vc_uuid) {
  // What a guest does comes in bursts.
  if (last_guest_ != nullptr && last_guest_->first == vc_uuid) return last_guest_->second;
  const auto [found, is_new] = guests_.try_emplace(vc_uuid);
  if (is_new) {
    ZLOG_DEBUG("Zemi: VM map entry for vcUuid: %s not found, creating one", vc_uuid.c_str());
    Count(statistics_.vms);
  } else {
    ZLOG_DEBUG("Zemi: VM map entry for vcUuid: %s found", vc_uuid.c_str());
  }
  last_guest_ = &*found;
  return found->second;
}

void Aggregator::Take(std::shared_ptr<const VmEvent> event) {
  if (!HasRoom()) return;
  switch (event->event_type) {
    case POWER_ON:
      Count(statistics_.vm_power_on_events);
      break;
    case POWER_OFF:
      Count(statistics_.vm_power_off_events);
      break;
    default:
      Count(statistics_.system_events);
  }
  VmInfo& guest = GuestOf(event->vc_uuid);
  guest.vm_events.push_back(std::move(event));
}

void Aggregator::Take(std::shared_ptr<const ConnInfo> connection) {
  if (!HasRoom()) return;
  VmInfo& guest = GuestOf(connection->vc_uuid);
  if (connection->missed_login && HasUser(*connection)) {
    EnterUser(guest, connection->user_dfw_key,
              {connection->sid, connection->uid, connection->username, connection->domainname,
               connection->group_count, connection->group_hash});
  }
  const auto [process, is_new] = guest.processes.try_emplace(ProcessKey(*connection));
  process->second.pid = connection->pid;
  process->second.ctime = connection->ctime;
  if (is_new) {
    process->second.first = connection;
    Count(statistics_.processes);
  }
  for (const ServiceKind& kind : kServiceKinds) {
    if (kind.conn_type != connection->conn_type) continue;
    Count(statistics_.service_events);
    Count(statistics_.*kind.counter);
    guest.service_events.push_back({kind.type, &process->first, std::move(connection)});
    return;
  }
  ZLOG_DEBUG("Skipping service event type: %d", static_cast<int>(connection->conn_type));
}

void Aggregator::Take(std::shared_ptr<const UserSessionInfo> session) {
  if (!HasRoom()) return;
  VmInfo& guest = GuestOf(session->vc_uuid);
  if (!HasUser(*session)) {
    ZLOG_DEBUG("Zemi: Skipping user event type %s due to no valid sid or uid",
               SessionTypeName(session->session_type));
    return;
  }
  EnterUser(guest, session->dfw_key,
            {session->sid, session->uid, session->user_name, session->domain_name, session->group_count,
             session->group_hash});
  const SessionKind* const kind = KindOf(session->session_type);
  if (kind == nullptr) {
    ZLOG_DEBUG("Skipping user event type: %d", static_cast<int>(session->session_type));
    return;
  }
  Count(statistics_.*kind->counter);
  guest.user_events.push_back({kind->type, std::move(session)});
}

void Aggregator::EnterUser(VmInfo& guest, const std::string& key, UserInfo user) {
  const auto [found, is_new] = guest.users.try_emplace(key);
  UserInfo& known = found->second;
  if (is_new) {
    Count(statistics_.users);
    known = std::move(user);
    return;
  }
  known.user_name = std::move(user.user_name);
  known.domain_name = std::move(user.domain_name);
  known.group_count = user.group_count;
  known.group_hash = user.group_hash;
}

void Aggregator::Clear() {
  last_guest_ = nullptr;
  guests_.clear();
  events_ = 0;
}

}  // namespace Ctxt::PaceClient
