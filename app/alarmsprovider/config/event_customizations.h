#pragma once

#include <memory>
#include <string>

namespace orlane::zem::covedb {
class EventConfigMsg;
}

namespace zem::Tarvik {

/// The operators' customizations of alarm events, and the file in which the alarm libraries find them.
///
/// Threads: none of its own; the owner guards it.
class EventCustomizations {
 public:
  explicit EventCustomizations(std::string path);
  ~EventCustomizations();

  /// Replaces the customization of the event's name.
  void Update(const orlane::zem::covedb::EventConfigMsg& event);
  void Delete(const std::string& name);
  void Clear();
  bool empty() const;

  /// Replaces the file, so that a reader sees either the old content or the new.  Returns false, after a log
  /// line, when the file is as it was.  The file's folder has to exist.
  [[nodiscard]] bool Write() const;

 private:
  struct Tree;

  const std::string path_;
  const std::unique_ptr<Tree> tree_;
};

}  // namespace zem::Tarvik
