#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zem::bench {

/// One measured run of echo calls.
struct EchoResult {
  double calls_per_second = 0;
  double cpu_us_per_call = 0;  // of the whole process, both sides
  double median_us = 0;
  double p99_us = 0;  // of the fast calls only
};

struct EchoCase {
  size_t size = 64;
  int outstanding = 1;
  int calls = 10000;
  /// One in a hundred calls is answered 5 ms later, by another thread.
  bool slow = false;
};

struct StreamResult {
  double messages_per_second = 0;
  double cpu_us_per_message = 0;
};

/// A client and a server of one library in this process, on loopback.
class Subject {
 public:
  virtual ~Subject() = default;
  virtual EchoResult Echo(const EchoCase& c) = 0;
  virtual StreamResult Stream(uint32_t count, uint32_t size) = 0;
};

std::unique_ptr<Subject> MakeOurs();
std::unique_ptr<Subject> MakeGrpc();
std::unique_ptr<Subject> MakeFloor();

using Instant = std::chrono::steady_clock::time_point;
inline Instant Now() { return std::chrono::steady_clock::now(); }

/// Processor time of the process, in microseconds.
double CpuUs();

/// The measured values of a closed loop of calls.  Used by one thread.
class EchoMeter {
 public:
  explicit EchoMeter(const EchoCase& c) : case_(c) { times_.reserve(static_cast<size_t>(c.calls)); }
  void Begin() {
    cpu_ = CpuUs();
    begun_ = Now();
  }
  /// Returns true when the next call has to be a slow one.
  bool NextIsSlow() { return case_.slow && ++started_ % 100 == 50; }
  void Add(Instant start, bool slow) {
    ++done_;
    if (!slow) times_.push_back(std::chrono::duration<double, std::micro>(Now() - start).count());
  }
  int done() const { return done_; }
  EchoResult End();

 private:
  const EchoCase case_;
  double cpu_ = 0;
  Instant begun_;
  int started_ = 0;
  int done_ = 0;
  std::vector<double> times_;
};

}  // namespace zem::bench
