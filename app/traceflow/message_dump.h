#pragma once

#include <string>

namespace google::protobuf {
class Message;
}

namespace zem::Tarvik {

/// The message on one line, with its MAC and IP addresses in their usual notation.
std::string DumpWithAddresses(const google::protobuf::Message& message);

}  // namespace zem::Tarvik
