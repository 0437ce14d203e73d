#pragma once

#include <string>
#include <string_view>

namespace IdsEvtEng {

/// The parts of a URL; what it does not have is empty.
struct UrlParts {
  /// Lower-case.
  std::string scheme;
  std::string host;
  std::string port;
  /// With its "/", at least that.
  std::string path;
};

/// Cuts any text; whatever it is, nothing is lost but "://", a user's name with its "@", and a port that is
/// not a number of 16 bits.
UrlParts SplitUrl(std::string_view url);

}  // namespace IdsEvtEng
