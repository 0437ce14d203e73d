#pragma once

#include <climits>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace zem::Tarvik {

/// The replies that handlers give to the command server, from any thread.
class CliReplyQueue;

/// One command's answer, to be given once.  It may leave the handler and be given later, from another thread,
/// when the work is more than a look into memory; its client waits, others are served.  A reply that comes
/// after the server's end is dropped; one that is destroyed without an answer answers with an error, so that
/// no client hangs.
class CliReply {
 public:
  CliReply(std::shared_ptr<CliReplyQueue> queue, uint64_t request)
      : queue_(std::move(queue)), request_(request) {}
  ~CliReply();
  CliReply(CliReply&&) noexcept = default;
  CliReply& operator=(CliReply&&) = delete;
  CliReply(const CliReply&) = delete;
  CliReply& operator=(const CliReply&) = delete;

  void Ok(std::string text) { Give(true, std::move(text)); }
  void Error(std::string text) { Give(false, std::move(text)); }

 private:
  void Give(bool ok, std::string text);

  std::shared_ptr<CliReplyQueue> queue_;  // null once given
  uint64_t request_;
};

using CliArguments = std::vector<std::string>;

/// A row of the command table.  The texts live forever.
struct CliCommand {
  static constexpr int kNoLimit = INT_MAX;

  const char* name;
  const char* usage;
  int min_arguments;
  int max_arguments;
  /// Runs on the server's thread, one at a time; the arguments come without the command's name.  What it
  /// throws becomes the error reply.
  std::function<void(const CliArguments& arguments, CliReply reply)> handler;
};

}  // namespace zem::Tarvik
