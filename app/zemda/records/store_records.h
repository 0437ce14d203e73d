#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ZemDa {

class CoveDBConnectionHandler;
class Interruption;

/// What the two kinds of records differ in.
struct RecordKind {
  uint32_t type;
  /// The key of a serialized record; nothing when it is none.
  std::optional<std::string> (*key_of)(const std::string& object);
  const char* timed_out;
  const char* refused;
  const char* tag;  // of the three below
  const char* older;
  const char* bad_status;
  const char* unreadable;
  const char* added;  // to the list; may be null
};

/// Records of one type in the store, with blocking reads.  Own writes that the store has not acknowledged are
/// seen by reads: they wait in the client's queue, and a read would overtake them.
///
/// Threads: all operations from any thread but the store client's.
class StoreRecords {
 public:
  using Objects = std::vector<std::string>;

  /// `interruption` ends reads; it may be null, and else outlives this.
  StoreRecords(std::shared_ptr<CoveDBConnectionHandler> store, const RecordKind& kind,
               Interruption* interruption);
  ~StoreRecords();

  void Put(const std::string& key, std::string object);
  void Delete(const std::string& key, std::string object);
  /// Reads the record with the key, for which `object` stands, or all when `object` is empty.  Nothing, after
  /// a log line, when the store refuses or does not answer within 10 seconds.  Throws Interrupted.
  std::optional<Objects> Read(const std::string& key, const std::string& object);

 private:
  class Unacknowledged;
  struct Request;

  void Write(const std::string& key, std::string object, bool put);
  void NextNumber();
  std::optional<Objects> Ask(const std::string& object);

  const std::shared_ptr<CoveDBConnectionHandler> store_;
  const RecordKind& kind_;
  Interruption* const interruption_;
  const std::shared_ptr<Unacknowledged> own_;
  // Of the current read; it changes with the read mutex held only, and late callbacks look at it.
  const std::shared_ptr<std::atomic<uint32_t>> number_;
};

}  // namespace ZemDa
