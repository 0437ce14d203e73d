#include "app/zemda/base/queue_log.h"

#include "framework/log/log.h"

namespace ZemDa::queue_log {
namespace {

constexpr zem::LogSource kLog{"tarvik", "zemda"};

}  // namespace

void Pushing() { ZLOG_DEBUG("Pushing messages in queue."); }

void Pushed(bool added, size_t size) {
  if (added) {
    ZLOG_DEBUG("Message added to queue. New size is [%zd].", static_cast<ssize_t>(size));
  } else {
    ZLOG_ERROR("MPA20011", "Message queue is full, not adding new message.");
  }
  ZLOG_DEBUG("Pushed messages in queue.");
}

void Removing() { ZLOG_DEBUG("Removing messages in queue."); }
void Waiting() { ZLOG_DEBUG("Waiting. Queue is empty."); }

void Removed(size_t size) {
  ZLOG_DEBUG("Message removed from queue. New size is [%zd].", static_cast<ssize_t>(size));
}

void Peeking() { ZLOG_DEBUG("Peeking messages in queue."); }
void Peeked() { ZLOG_DEBUG("Peeked messages in queue."); }
void GettingSize() { ZLOG_DEBUG("Getting size of queue."); }
void GotSize() { ZLOG_DEBUG("Returning size of queue."); }
void Clearing() { ZLOG_DEBUG("Clear Queue."); }
void Cleared() { ZLOG_DEBUG("Queue cleared now it is empty."); }

}  // namespace ZemDa::queue_log
