#pragma once

#include <string>

namespace zem::Tarvik {

/// Holds a file of the collecting script, or a link to one, which is removed at the end: a link with its
/// target.
///
/// The path comes out of a script's output, and the process is root: only what lies below the folder of
/// temporary files, in folders and as a file of our own user, is removed.  Everything else stays, with a
/// warning.
class TempBundleLinkResource {
 public:
  explicit TempBundleLinkResource(std::string path) : path_(std::move(path)) {}
  ~TempBundleLinkResource();
  TempBundleLinkResource(const TempBundleLinkResource&) = delete;
  TempBundleLinkResource& operator=(const TempBundleLinkResource&) = delete;

 private:
  const std::string path_;
};

}  // namespace zem::Tarvik
