#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

struct rmqClientMessage;
namespace zem {
class AsioZemProvider;
}

namespace ZemDa {

/// The way to the manager and back.
///
/// Threads: `Start` and `Stop` by one owner; the others from any thread.
class IManagerRoad {
 public:
  /// The record lives until the callback returns, which may not block.
  using Receive = std::function<void(const rmqClientMessage& record)>;

  virtual ~IManagerRoad() = default;
  /// `receive` may be called before this returns.
  virtual void Start(Receive receive) = 0;
  /// No call of `receive` begins afterwards.
  virtual void Stop() = 0;
  virtual bool IsConnected() const = 0;
  /// Of the present connection; -1 without one.
  virtual int32_t cookie() const = 0;
  /// Hands a request over; 0, or an error of the manager client.
  virtual int Send(std::string payload, const std::string& correlation_id) = 0;
};

/// Over the manager client of the process.
std::unique_ptr<IManagerRoad> MakeManagerRoad(zem::AsioZemProvider& provider);

}  // namespace ZemDa
