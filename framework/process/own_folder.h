#pragma once

#include <string>

namespace zem {

/// Whether somebody else can have put the file `path` there, or can put a link in its place: its folder is a
/// link, another user's, or open to the writing of others.  A folder that is missing is nobody's.
///
/// For files at fixed paths in folders such as "/tmp", where every user may make a folder first.
[[nodiscard]] bool OthersWriteBeside(const std::string& path);

}  // namespace zem
