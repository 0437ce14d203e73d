#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace ZemDa {

/// What kind of host this is, asked once.
class HostInfo {
 public:
  /// The kinds by their numbers in the manager's messages; 0 and 1 are none.
  static constexpr int32_t kQub = 2;

  /// The process's, made at the first use.  Threads: any; the first call may run host commands.
  static std::shared_ptr<const HostInfo> Get();
  /// For tests: the next `Get` asks again.
  static void Forget();

  int32_t host_type() const { return host_type_; }
  bool valid() const { return host_type_ > 1; }
  /// The name of the host type in the manager's messages.
  std::string TypeName() const;
  const std::string& version() const { return version_; }
  /// Of host type 7 only.
  const std::string& second_version() const { return second_version_; }

 private:
  HostInfo();
  void FindDistribution();

  int32_t host_type_ = 0;
  std::string version_;
  std::string second_version_;
};

}  // namespace ZemDa
