#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/rpc/call.h"
#include "platform/rpc/connection.h"
#include "platform/rpc/method.h"

namespace zem::rpc {

class Transport;

/// Receives the further requests of a client-streaming or two-way call.  Owned by the library until `End` has
/// returned.
template <class Request>
class RequestObserver {
 public:
  virtual ~RequestObserver() = default;
  virtual void Next(const Request& message) = 0;
  /// Once, last: OK when the client has sent all, else how the call ended.
  virtual void End(const Status& status) = 0;
};

/// The base of generated services.  Each method's handler runs on the connection's strand and must not block;
/// it may keep the handle and answer later from any thread.
class ServiceBase {
 public:
  virtual ~ServiceBase() = default;
  virtual const ServiceInfo& info() const = 0;

  /// Generated: parses and calls the handler of method `index`; an INVALID message closes the call.  Part of
  /// the library's inner side.
  virtual void Dispatch(uint16_t index, const std::shared_ptr<CallState>& call, const char* data, size_t size,
                        bool last) = 0;
};

struct ServiceOptions {};

/// Services that can be reached at listening endpoints, at local endpoint ids, or both.  Destroying it stops
/// them: channels end with "remote close" for their clients.
class Server {
 public:
  virtual ~Server() = default;
  /// The port of a listening endpoint given with port 0.
  virtual uint16_t port(size_t listener = 0) const = 0;
  virtual void Stop() = 0;
};

/// Gathers what a server is made of.  By one thread.
class ServerBuilder {
 public:
  explicit ServerBuilder(Transport& transport);
  ~ServerBuilder();

  ServerBuilder& AddListeningEndpoint(net::Endpoint endpoint, ConnectionOptions options = {});
  ServerBuilder& AddLocalEndpointId(std::string id);
  ServerBuilder& RegisterService(std::shared_ptr<ServiceBase> service, ServiceOptions options = {});

  /// Binds and listens; accepting starts with the provider's loop.  Throws std::system_error when an endpoint
  /// cannot be bound.
  std::unique_ptr<Server> BuildStarted();

 private:
  struct Parts;
  Transport& transport_;
  std::unique_ptr<Parts> parts_;
};

}  // namespace zem::rpc
