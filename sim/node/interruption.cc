#include "sim/node/interruption.h"

#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "platform/core/thread.h"

namespace zem::sim {
namespace {

constexpr int kSignalExit = 128;

sigset_t Signals() {
  sigset_t signals;
  ::sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) ::sigaddset(&signals, signal);
  return signals;
}

void Remove(const std::string& path) {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

}  // namespace

Interruption& Interruption::Get() {
  static auto* const one = new Interruption;  // its thread lives as long as the program
  return *one;
}

void Interruption::LetPass() {
  const sigset_t signals = Signals();
  ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

Interruption::Interruption() {
  const sigset_t signals = Signals();
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  NativeThread::Options options;
  options.detached = true;
  const NativeThread started(std::move(options), [this] { Wait(); });
}

void Interruption::Wait() {
  const sigset_t signals = Signals();
  int signal = 0;
  while (::sigwait(&signals, &signal) != 0) {
  }
  const std::lock_guard lock(mutex_);
  while (!clear_.empty()) {
    clear_.back()();
    clear_.pop_back();
  }
  ::_exit(kSignalExit + signal);
}

std::shared_ptr<void> Interruption::Add(const Held&, std::function<void()> clear) {
  const auto at = clear_.insert(clear_.end(), std::move(clear));
  return {nullptr, [this, at](void*) {
            const std::lock_guard inner(mutex_);
            clear_.erase(at);
          }};
}

ScratchFolder::ScratchFolder(const std::string& name)
    : path_(std::filesystem::temp_directory_path() / (name + ".XXXXXX")) {
  Interruption& interruption = Interruption::Get();
  const Interruption::Held held = interruption.Hold();
  if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error(path_ + ": " + std::strerror(errno));
  ending_ = interruption.Add(held, [path = path_] { Remove(path); });
}

ScratchFolder::~ScratchFolder() {
  Remove(path_);
  ending_.reset();
}

std::string ScratchFolder::Write(const std::string& name, const std::string& text) const {
  std::string path = path_ + "/" + name;
  std::ofstream out(path);
  out << text;
  if (!out.flush()) throw std::runtime_error(path + " cannot be written");
  return path;
}

}  // namespace zem::sim
