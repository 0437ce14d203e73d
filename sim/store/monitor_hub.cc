#include "sim/store/monitor_hub.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "sim/store/where.h"

namespace zem::sim {
namespace {

namespace proto = orlane::zem::covedb;
using rpc::Status;
using rpc::StatusCode;

Status Invalid(std::string text) { return Status(StatusCode::kInvalidArgument, std::move(text)); }

std::string OperationBytes(proto::ObjectOpMsg::Operation operation) {
  proto::ObjectOpMsg message;
  message.set_operation(operation);
  return message.SerializeAsString();
}

proto::MonitorUpdateMsg MakeUpdate(ObjectType type, proto::ObjectOpMsg::Operation operation,
                                   const ObjectValue& after, const ObjectValue& before) {
  proto::MonitorUpdateMsg update;
  update.set_object_type(type);
  update.set_operation(OperationBytes(operation));
  if (after) update.set_object(*after);
  if (before) update.set_old_object(*before);
  return update;
}

template <class Clauses>
int FindClause(const Clauses& clauses, const proto::WhereMsg& wanted) {
  const std::string bytes = wanted.SerializeAsString();
  for (int i = 0; i < clauses.size(); ++i) {
    if (clauses[i].SerializeAsString() == bytes) return i;
  }
  return -1;
}

Status ApplyUpdate(const proto::MonitorStatementUpdateMsg& update, proto::StatementMsg& statement) {
  auto& clauses = *statement.mutable_where();
  for (const proto::WhereMsg& clause : update.where_to_remove()) {
    const int at = FindClause(clauses, clause);
    if (at < 0) return Invalid("a condition to remove is not there");
    clauses.DeleteSubrange(at, 1);
  }
  for (const proto::WhereMsg& clause : update.where_to_add()) {
    if (FindClause(clauses, clause) >= 0) return Invalid("a condition to add is there already");
    *clauses.Add() = clause;
  }
  return Status();
}

}  // namespace

const char kGarbage[] = "\xff\xff\xff\xff garbage";

MonitorHub::MonitorHub(const ObjectRegistry& registry, const ObjectStore& objects)
    : registry_(registry), objects_(objects) {}

MonitorHub::StreamList::iterator MonitorHub::FindMonitor(const std::string& monitor_id) {
  return std::find_if(streams_.begin(), streams_.end(),
                      [&](const Stream& stream) { return stream.monitor_id == monitor_id; });
}

MonitorHub::StreamList::iterator MonitorHub::FindSink(const MonitorSink& sink) {
  return std::find_if(streams_.begin(), streams_.end(),
                      [&](const Stream& stream) { return stream.sink.get() == &sink; });
}

MonitorHub::StreamList::iterator MonitorHub::End(StreamList::iterator stream, const Status& status) {
  const std::shared_ptr<MonitorSink> sink = stream->sink;
  const auto next = streams_.erase(stream);
  sink->Close(status);
  return next;
}

void MonitorHub::Open(const std::string& client_id, const proto::MonitorRequestMsg& request,
                      std::shared_ptr<MonitorSink> sink) {
  const auto refuse = [&sink](const Status& status) { sink->Close(status); };
  if (request.monitor_id().empty()) return refuse(Invalid("a monitor needs an id"));
  const uint32_t vdb_id = request.has_vdb_id() ? request.vdb_id() : ObjectStore::kDefaultVDb;
  if (vdb_id > UINT16_MAX || !objects_.HasVDb(static_cast<uint16_t>(vdb_id))) {
    return refuse(Status(StatusCode::kVdbGone, "no vdb " + std::to_string(vdb_id)));
  }
  Stream stream;
  stream.monitor_id = request.monitor_id();
  stream.client_id = client_id;
  stream.vdb_id = static_cast<uint16_t>(vdb_id);
  stream.sink = sink;
  for (const proto::MonitorStatementMsg& monitor : request.monitor_statement()) {
    const proto::StatementMsg& statement = monitor.statement();
    if (const Status status = CheckStatement(registry_, statement); !status.ok()) return refuse(status);
    if (!stream.statements.emplace(statement.object_type(), statement).second) {
      return refuse(Invalid("two statements for one object type"));
    }
  }
  const auto present = FindMonitor(request.monitor_id());
  if (present != streams_.end()) {
    if (present->client_id != client_id) {
      return refuse(Invalid("the monitor id belongs to another client"));
    }
    End(present, Status(StatusCode::kCancelled, "a new stream has taken over the monitor id"));
  }
  Stream& entry = streams_.emplace_back(std::move(stream));
  Updates updates;
  for (const auto& [type, statement] : entry.statements) Replay(entry, statement, updates);
  Send(entry, updates, true);
  EndLost();
}

void MonitorHub::Replay(const Stream& stream, const proto::StatementMsg& statement, Updates& updates) const {
  for (const auto& [key, value] : objects_.All(stream.vdb_id, statement.object_type())) {
    if (!Matches(registry_, statement, *value)) continue;
    updates.push_back(MakeUpdate(statement.object_type(), proto::ObjectOpMsg::SET, value, nullptr));
  }
}

Status MonitorHub::Configure(const std::string& client_id, const proto::ConfigureMonitorRequestMsg& request,
                             proto::ConfigureMonitorResponseMsg* response) {
  const auto found = FindMonitor(request.monitor_request_id());
  if (found == streams_.end()) return Status(StatusCode::kNotFound, "no such monitor");
  Stream& stream = *found;
  if (stream.client_id != client_id) return Invalid("the monitor id belongs to another client");

  auto statements = stream.statements;
  Updates updates;
  for (const proto::MonitorStatementMsg& monitor : request.statement_to_remove()) {
    if (statements.erase(monitor.statement().object_type()) == 0) {
      return Invalid("a type to remove is not monitored");
    }
  }
  for (const proto::MonitorStatementMsg& monitor : request.statement_to_add()) {
    const proto::StatementMsg& statement = monitor.statement();
    if (Status status = CheckStatement(registry_, statement); !status.ok()) return status;
    if (!statements.emplace(statement.object_type(), statement).second) {
      return Invalid("a type to add is monitored already");
    }
    Replay(stream, statement, updates);
  }
  for (const proto::MonitorStatementUpdateMsg& update : request.statement_update()) {
    const auto entry = statements.find(update.object_type());
    if (entry == statements.end()) return Invalid("a type to update is not monitored");
    const proto::StatementMsg before = entry->second;
    if (Status status = ApplyUpdate(update, entry->second); !status.ok()) return status;
    if (Status status = CheckStatement(registry_, entry->second); !status.ok()) return status;
    // Objects that match only the new conditions are sent to the client.
    for (const auto& [key, value] : objects_.All(stream.vdb_id, update.object_type())) {
      if (Matches(registry_, before, *value) || !Matches(registry_, entry->second, *value)) continue;
      updates.push_back(MakeUpdate(update.object_type(), proto::ObjectOpMsg::SET, value, nullptr));
    }
  }
  stream.statements = std::move(statements);
  ShowMonitored(stream, response);
  const bool added = request.statement_to_add_size() > 0 || request.statement_update_size() > 0;
  Send(stream, updates, added);
  EndLost();
  return Status();
}

void MonitorHub::ShowMonitored(const Stream& stream, proto::ConfigureMonitorResponseMsg* response) {
  for (const auto& [type, statement] : stream.statements) {
    proto::MonitoredTypeMsg* const monitored = response->add_monitored();
    monitored->set_object_type(type);
    monitored->set_id(static_cast<uint64_t>(type));
  }
}

void MonitorHub::Publish(const std::vector<ObjectChange>& changes) {
  for (Stream& stream : streams_) {
    Updates updates;
    for (const ObjectChange& change : changes) {
      if (change.vdb_id != stream.vdb_id) continue;
      const auto statement = stream.statements.find(change.type);
      if (statement == stream.statements.end()) continue;
      const bool after = change.after && Matches(registry_, statement->second, *change.after);
      const bool before = change.before && Matches(registry_, statement->second, *change.before);
      if (after) {
        updates.push_back(MakeUpdate(change.type, proto::ObjectOpMsg::SET, change.after, change.before));
      } else if (before) {
        // A deleted object and one that no longer matches look the same to the client.  The last value
        // identifies it.
        updates.push_back(MakeUpdate(change.type, proto::ObjectOpMsg::DELETE, change.before, change.before));
      }
    }
    Send(stream, updates, false);
  }
  EndLost();
}

size_t MonitorHub::SendBarrier(uint16_t vdb_id) {
  size_t count = 0;
  for (Stream& stream : streams_) {
    if (stream.vdb_id != vdb_id) continue;
    Updates none;
    Send(stream, none, true);
    ++count;
  }
  EndLost();
  return count;
}

void MonitorHub::Send(Stream& stream, Updates& updates, bool mark_alone) {
  if (updates.empty() && !mark_alone) return;
  stream.updates += updates.size();
  size_t next = 0;
  do {
    proto::MonitorResponseMsg piece;
    size_t bytes = 0;
    while (next < updates.size() && piece.update_size() < kMaxUpdates && bytes < kMaxPieceBytes) {
      proto::MonitorUpdateMsg& update = updates[next++];
      if (garbage_ > 0) {
        --garbage_;
        update.set_object(kGarbage);
      }
      bytes += update.ByteSizeLong();
      *piece.add_update() = std::move(update);
    }
    if (next == updates.size()) piece.mutable_mark()->set_barrier(true);
    Write(stream, std::move(piece));
  } while (next < updates.size());
}

void MonitorHub::Write(Stream& stream, proto::MonitorResponseMsg response) {
  if (stream.lost) return;
  if (stream.behind.empty() && stream.sink->Write(response)) return;
  stream.behind_bytes += response.ByteSizeLong();
  stream.behind.push_back(std::move(response));
  if (stream.behind_bytes > kMaxBehindBytes) stream.lost = true;
}

void MonitorHub::EndLost() {
  for (auto stream = streams_.begin(); stream != streams_.end();) {
    if (stream->lost) {
      stream = End(stream, Status(StatusCode::kResyncRequired, "the stream is too far behind"));
    } else {
      ++stream;
    }
  }
}

void MonitorHub::Ended(const MonitorSink& sink) {
  const auto found = FindSink(sink);
  if (found != streams_.end()) streams_.erase(found);
}

void MonitorHub::Drain(const MonitorSink& sink) {
  const auto found = FindSink(sink);
  if (found == streams_.end()) return;
  Stream& stream = *found;
  while (!stream.behind.empty() && stream.sink->Write(stream.behind.front())) {
    stream.behind_bytes -= stream.behind.front().ByteSizeLong();
    stream.behind.pop_front();
  }
}

size_t MonitorHub::EndVDb(uint16_t vdb_id, const Status& status) {
  size_t count = 0;
  for (auto stream = streams_.begin(); stream != streams_.end();) {
    if (stream->vdb_id == vdb_id) {
      stream = End(stream, status);
      ++count;
    } else {
      ++stream;
    }
  }
  return count;
}

size_t MonitorHub::EndMonitor(const std::string& monitor_id, const Status& status) {
  size_t count = 0;
  for (auto stream = streams_.begin(); stream != streams_.end();) {
    if (monitor_id.empty() || stream->monitor_id == monitor_id) {
      stream = End(stream, status);
      ++count;
    } else {
      ++stream;
    }
  }
  return count;
}

std::vector<MonitorInfo> MonitorHub::Streams() const {
  std::vector<MonitorInfo> list;
  for (const Stream& stream : streams_) {
    MonitorInfo info{stream.monitor_id, stream.client_id,   stream.vdb_id, {},
                     stream.updates,    stream.behind_bytes};
    for (const auto& [type, statement] : stream.statements) info.types.push_back(type);
    list.push_back(std::move(info));
  }
  return list;
}

}  // namespace zem::sim
