#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace zem::bench {

/// One object of the store: its key, some text, and a number; a number other than 0 has to be reported by the
/// watcher.
struct Object {
  uint32_t key = 0;
  int64_t number = 0;
};
std::string KeyText(uint32_t key);
std::string ObjectText();

/// A store in a process of its own, and the client that writes to it.
class Subject {
 public:
  virtual ~Subject() = default;
  /// The address to which watchers connect.
  virtual std::string address() const = 0;
  /// Sends `count` new objects, numbered from `first`, as one transaction; the last one has `number`.  Does
  /// not wait.
  virtual void Put(Object first, uint32_t count) = 0;
  /// Waits until the store has everything.
  virtual void Flush() = 0;
};

std::unique_ptr<Subject> MakeOurs();
std::unique_ptr<Subject> MakeOvsdb();
/// The floor: no store, only the time of single messages.
std::unique_ptr<Subject> MakeFloor();
/// The process behind it; it prints its port on standard output.
[[noreturn]] void Relay();

/// Watches all objects of the store at `address` until the process ends.  `complete` gets the number of
/// objects of the first complete reading, then `told` each number that is not 0.
struct Watcher {
  std::function<void(uint64_t objects)> complete;
  std::function<void(int64_t number)> told;
};
[[noreturn]] void WatchOurs(const std::string& address, const Watcher& watcher);
[[noreturn]] void WatchOvsdb(const std::string& address, const Watcher& watcher);
[[noreturn]] void WatchFloor(const std::string& address, const Watcher& watcher);

}  // namespace zem::bench
