#pragma once

#include <set>
#include <string>

namespace zem::sim {

/// What two lives say alike, but for names and times that each of them made up by itself.
///
/// A uuid, a long number or digest, or a date that only one of the two lives ever mentions was made up there,
/// and stands for any other of its kind; unless the day itself gave it to the daemon.
class Likeness {
 public:
  void MentionInFirst(const std::string& text) { Mention(text, &first_); }
  void MentionInSecond(const std::string& text) { Mention(text, &second_); }
  void Give(const std::string& text) { Mention(text, &given_); }

  /// The text with a word for each name that was made up.
  std::string Of(const std::string& text) const;

 private:
  static void Mention(const std::string& text, std::set<std::string>* names);

  std::set<std::string> first_;
  std::set<std::string> second_;
  std::set<std::string> given_;
};

}  // namespace zem::sim
