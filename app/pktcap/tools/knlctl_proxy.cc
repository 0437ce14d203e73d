#include "app/pktcap/tools/knlctl_proxy.h"

#include <cjson/cJSON.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>

#include "framework/log/log.h"
#include "platform/core/poll.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "pktcap"};

constexpr const char* kListUrl = "/world/all";
constexpr const char* kMethod = "GET";
constexpr size_t kPiece = 4096;
constexpr auto kAttemptLimit = std::chrono::seconds(3);
constexpr auto kTermLimit = std::chrono::milliseconds(500);

struct JsonDelete {
  void operator()(cJSON* item) const { cJSON_Delete(item); }
};
using Json = std::unique_ptr<cJSON, JsonDelete>;

struct CFree {
  void operator()(char* text) const { cJSON_free(text); }
};

std::string EncodeRequest(const char* url) {
  const Json request(cJSON_CreateObject());
  cJSON_AddStringToObject(request.get(), "url", url);
  cJSON_AddStringToObject(request.get(), "method", kMethod);
  cJSON_AddObjectToObject(request.get(), "request");
  const std::unique_ptr<char, CFree> text(cJSON_PrintUnformatted(request.get()));
  return text ? std::string(text.get()) : std::string();
}

}  // namespace

KnlctlProxy::KnlctlProxy(const CaptureTools& tools)
    : tools_(tools), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

KnlctlProxy::~KnlctlProxy() { EndHelper(); }

void KnlctlProxy::RequestStop() {
  stopped_ = true;
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t full_is_awake = ::write(wake_.get(), &one, sizeof(one));
}

void KnlctlProxy::Stop() {
  RequestStop();
  const std::lock_guard lock(mutex_);
  EndHelper();
}

std::optional<std::vector<HostWorld>> KnlctlProxy::Worlds() {
  const std::lock_guard lock(mutex_);
  WorldReply reply;
  if (!Request(kListUrl, &reply)) {
    ZLOG_WARN("knlctlProxy failed to retrieve process lists: %s", "no answer");
    return std::nullopt;
  }
  if (reply.status != 0 || !reply.worlds) {
    const char* const why = reply.error.empty() ? "no list" : reply.error.c_str();
    ZLOG_WARN("knlctlProxy returned an error: %s at %s", why, kListUrl);
    ZLOG_WARN("knlctlProxy failed to retrieve process lists: %s", why);
    return std::nullopt;
  }
  ZLOG_DEBUG("knlctlProxy performed %s at %s successfully", kMethod, kListUrl);
  ZLOG_INFO("Found %lu worlds", static_cast<unsigned long>(reply.worlds->size()));
  return std::move(reply.worlds);
}

bool KnlctlProxy::Request(const char* url, WorldReply* reply) {
  for (unsigned attempt = 1; attempt <= kAttempts && !stopped_; ++attempt) {
    if (Attempt(url, reply)) return true;
    // Whatever it says later would be taken for the answer to the next request.
    EndHelper();
    if (!stopped_) {
      ZLOG_WARN("knlctlProxy: Attempt %u of %u failed. Retry again at %s", attempt, kAttempts, url);
    }
  }
  return false;
}

bool KnlctlProxy::Attempt(const char* url, WorldReply* reply) {
  if (helper_ < 0 && !StartHelper()) return false;
  const TimePoint deadline = Clock::Process().Now() + kAttemptLimit;
  const std::string text = EncodeRequest(url);
  char header[kProxyHeaderSize + 1];
  if (text.empty() || text.size() > kLongestProxyBody) {
    ZLOG_WARN("knlctlProxy failed to encode request: %s", url);
    return false;
  }
  std::snprintf(header, sizeof(header), "LENGTH: %7u\n", static_cast<unsigned>(text.size()));
  ZLOG_DEBUG("knlctlProxy requested request hdr: %s", header);
  ZLOG_DEBUG("knlctlProxy requested request body: %s", text.c_str());
  if (!Send(header + text, deadline)) return false;
  std::string answer(kProxyHeaderSize, '\0');
  std::optional<size_t> length;
  if (Receive(answer.data(), answer.size(), deadline)) {
    ZLOG_DEBUG("knlctlProxy retrieved response hdr: %s", answer.c_str());
    length = ProxyBodyLength(answer);
  }
  answer.resize(length.value_or(0));
  if (!length || !Receive(answer.data(), *length, deadline)) {
    ZLOG_WARN("knlctlProxy failed to read response: %s", length ? "body" : "header");
    return false;
  }
  ZLOG_DEBUG("knlctlProxy retrieved response body: %s", answer.c_str());
  auto parsed = ParseWorldReply(answer);
  if (!parsed) {
    ZLOG_WARN("knlctlProxy failed to read response: %s", "no status");
    return false;
  }
  *reply = std::move(*parsed);
  return true;
}

bool KnlctlProxy::StartHelper() {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0) {
    stream_.Reset(ends[0]);
    const UniqueFd theirs(ends[1]);
    ::fcntl(stream_.get(), F_SETFL, O_NONBLOCK);
    const int descriptors[3] = {theirs.get(), theirs.get(), -1};
    helper_ = Popen({tools_.python, tools_.process_proxy}, descriptors);
  }
  if (helper_ < 0) {
    ZLOG_WARN("knlctlProxy failed to start");
    return false;
  }
  ZLOG_INFO("knlctlProxy daemon started as pid: %d", static_cast<int>(helper_));
  return true;
}

void KnlctlProxy::EndHelper() {
  stream_.Reset();
  if (helper_ < 0) return;
  ::kill(helper_, SIGTERM);
  if (!WaitForChild(helper_, Clock::Process().Now() + kTermLimit)) {
    ::kill(helper_, SIGKILL);
    static_cast<void>(WaitForChild(helper_, Clock::Process().Now() + kTermLimit));
  }
  ZLOG_INFO("knlctlProxy daemon stopped as pid: %lu", static_cast<unsigned long>(helper_));
  helper_ = -1;
}

bool KnlctlProxy::Send(const std::string& bytes, TimePoint deadline) {
  for (size_t sent = 0; sent < bytes.size();) {
    if (!WaitFor(POLLOUT, deadline)) return false;
    const ssize_t part =
        ::send(stream_.get(), bytes.data() + sent, std::min(kPiece, bytes.size() - sent), MSG_NOSIGNAL);
    if (part > 0) sent += static_cast<size_t>(part);
    if (part < 0 && errno != EINTR && errno != EAGAIN) return false;
  }
  return true;
}

bool KnlctlProxy::Receive(char* bytes, size_t size, TimePoint deadline) {
  for (size_t got = 0; got < size;) {
    if (!WaitFor(POLLIN, deadline)) return false;
    const ssize_t part = ::recv(stream_.get(), bytes + got, std::min(kPiece, size - got), 0);
    if (part > 0) got += static_cast<size_t>(part);
    if (part == 0 || (part < 0 && errno != EINTR && errno != EAGAIN)) return false;
  }
  return true;
}

bool KnlctlProxy::WaitFor(short events, TimePoint deadline) {
  while (!stopped_ && Clock::Process().Now() < deadline) {
    pollfd waits[] = {{stream_.get(), events, 0}, {wake_.get(), POLLIN, 0}};
    PollAnswer(waits, std::size(waits), deadline);
    if (waits[0].revents != 0) return !stopped_;
  }
  return false;
}

}  // namespace zem::Tarvik
