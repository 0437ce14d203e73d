#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zem::sim {

/// The manager's target for files: takes each body of a PUT over HTTPS into a file of its own.
///
/// It shows a certificate that it signed itself.  Connections are independent: one that is held does not stop
/// another.
///
/// Threads: all operations from any thread; the connections are served by a thread of the sink's own.
class UploadSink {
 public:
  /// Keeps the files in `folder`, which it makes.  Listens on 127.0.0.1 at `port`; 0 takes a free one. Throws
  /// std::runtime_error or boost::system::system_error.
  UploadSink(std::string folder, uint16_t port);
  ~UploadSink();
  UploadSink(const UploadSink&) = delete;
  UploadSink& operator=(const UploadSink&) = delete;

  enum class Answers {
    kServe,   ///< takes the file
    kStatus,  ///< reads it and refuses with a status
    kClose,   ///< closes the connection in the middle of the body
    kHold,    ///< reads the body and never answers
  };
  /// How the next `count` requests are answered; after them, and with a `count` of 0, all are served.
  void SetAnswers(Answers answers, int count, unsigned status = 500);
  /// Closes all connections and listens no more, or listens again at the same port.
  void Listen(bool on);
  /// Shows another certificate from the next connection on.
  void ChangeCertificate();

  struct Upload {
    std::string target;
    /// The header by which the manager knows what the file belongs to.
    std::string id;
    /// Where the body is, complete or not.
    std::string file;
    uint64_t size = 0;
    /// The status that was answered; 0 for a request that got none.
    unsigned status = 0;
    /// Lower-case hexadecimal, of a complete body.
    std::string sha256;
  };
  struct State {
    uint16_t port = 0;
    /// SHA-256 of the certificate, lower-case hexadecimal.
    std::string thumbprint;
    /// TLS conversations that were ended before a request, as a client does that does not trust the
    /// certificate.
    uint64_t without_request = 0;
    std::vector<Upload> uploads;
    /// Requests that a manager would not understand.
    std::vector<std::string> violations;
  };
  State state() const;
  /// Forgets what was uploaded and removes the files.
  void Clear();

 private:
  class Impl;
  class Session;
  const std::shared_ptr<Impl> impl_;
};

}  // namespace zem::sim
