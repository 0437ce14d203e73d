#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "proto/covedb/runtime_objects.pb.h"

namespace zem::covedb {
class CoveDbClientInterface;
}

namespace Ctxt {

/// The errors of the rule-driven configuration, as the store shows them to the manager.
///
/// Threads: all operations from any thread.
/// Limits: 1,000 errors; then the oldest goes.
class RealizationErrors {
 public:
  enum Code : uint32_t {
    kProcessing = 9000,
    kRefused = 9001,  // by the library; without entity
  };

  void SetStore(std::shared_ptr<zem::covedb::CoveDbClientInterface> store);

  /// Adds an error and writes the list.  An error of this code and entity, or without entity, is there once.
  void Add(Code code, const std::string& text, const std::string& entity);
  /// Removes the errors of an entity; writes the list when that changed it.
  void Clear(const std::string& entity);
  /// Removes the errors of a code, as `Clear`.
  void Clear(Code code);
  /// Writes the list to the store, as one object.
  void WriteErrors();

 private:
  template <class Predicate>
  bool Erase(Predicate predicate);
  static void Write(zem::covedb::CoveDbClientInterface& store,
                    const orlane::zem::covedb::RuntimeStatusMsg& status);

  std::mutex mutex_;  // guards all below
  std::shared_ptr<zem::covedb::CoveDbClientInterface> store_;
  std::vector<orlane::zem::covedb::RealizationErrorMsg> errors_;
  bool writing_ = false;
  bool unwritten_ = false;
};

}  // namespace Ctxt
