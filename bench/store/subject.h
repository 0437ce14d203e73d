#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace zem::bench {

/// One object of the store: its key, some text, and a number, which is 0 unless who watches is to tell of it.
struct Object {
  uint32_t key = 0;
  int64_t number = 0;
};
std::string KeyText(uint32_t key);
std::string ObjectText();

/// A store as a process of its own, and the client that writes to it.
class Subject {
 public:
  virtual ~Subject() = default;
  /// Where watchers connect.
  virtual std::string address() const = 0;
  /// Makes `count` new objects from `first` on, as one transaction; the last one has `number`.  Does
  /// not wait.
  virtual void Put(Object first, uint32_t count) = 0;
  /// The store has everything.
  virtual void Flush() = 0;
};

std::unique_ptr<Subject> MakeOurs();
std::unique_ptr<Subject> MakeOvsdb();
/// No store: only for how long single messages take.
std::unique_ptr<Subject> MakeFloor();
/// The process behind it; tells its port on standard output.
[[noreturn]] void Relay();

/// Watches all objects of the store at `address` until the process ends.  `complete` gets how many objects
/// the first complete reading had, then `told` each number that is not 0.
struct Watcher {
  std::function<void(uint64_t objects)> complete;
  std::function<void(int64_t number)> told;
};
[[noreturn]] void WatchOurs(const std::string& address, const Watcher& watcher);
[[noreturn]] void WatchOvsdb(const std::string& address, const Watcher& watcher);
[[noreturn]] void WatchFloor(const std::string& address, const Watcher& watcher);

}  // namespace zem::bench
