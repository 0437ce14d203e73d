#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "sim/capture/tap_server.h"
#include "sim/capture/traffic.h"
#include "sim/uploads/upload_sink.h"

namespace zem {
class AsioZemProvider;
class VirtualClock;
namespace Tarvik {
class PktCapApp;
}
namespace sim {
class Manager;
}
}  // namespace zem

namespace zem::world {

/// Packet capture in a random life: the manager and operators start, ask for, end and upload captures of
/// packets that pass at the host's interfaces, while the tools die or lie, the look-ups fail and uploads do
/// not arrive.
///
/// Threads: the thread of the life.
class WorldCapture {
 public:
  WorldCapture(VirtualClock& clock, sim::Manager& manager);
  ~WorldCapture();

  void StartAgent(AsioZemProvider& provider);
  /// Returns nothing when nothing of the captures was left, else what was.
  std::vector<std::string> StopAgent();

  void Operate(std::mt19937_64& random);
  void Disturb(std::mt19937_64& random);
  void Calm();
  /// What is not so after Calm: a session that does not end, a question that was not answered once, a tool or
  /// file that is left, an uploaded file that does not hold packets as they were sent.
  std::vector<std::string> Check();
  /// What a capture of this moment lacks; costs some tenths of a second.
  std::vector<std::string> CheckOne();

 private:
  struct Call {
    int ends = 0;
    std::string answer;
  };

  int Ask(const std::string& text);
  bool Ended(int number);
  /// Lets the agent and the tools work until `done`, or gives up.
  bool WaitFor(const std::function<bool()>& done);
  std::string Upload(const std::string& id);
  std::string Start(const std::string& id, const std::string& more);
  void CheckUploads(std::vector<std::string>* lines);

  VirtualClock& clock_;
  sim::Manager& manager_;
  sim::UploadSink sink_;
  sim::capture::TapServer taps_;
  sim::capture::Traffic traffic_;
  std::unique_ptr<Tarvik::PktCapApp> app_;
  int sessions_ = 0;
  std::vector<std::string> left_;
  std::mutex mutex_;  // guards calls_
  std::map<int, Call> calls_;
  int asked_ = 0;
};

}  // namespace zem::world
