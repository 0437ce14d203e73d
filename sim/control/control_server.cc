#include "sim/control/control_server.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/write.hpp>
#include <cerrno>
#include <deque>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/provider/provider.h"
#include "sim/control/command_table.h"

namespace zem::sim {
namespace {

namespace asio = boost::asio;
using Local = asio::local::stream_protocol;
using Strand = asio::strand<asio::io_context::executor_type>;

void RemoveStaleSocket(asio::io_context& io, const std::string& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return;
  if (!S_ISSOCK(info.st_mode)) {
    throw std::system_error(EEXIST, std::generic_category(), path + " is not a socket");
  }
  Local::socket probe(io);
  boost::system::error_code error;
  probe.connect(Local::endpoint(path), error);
  if (!error) throw std::system_error(EADDRINUSE, std::generic_category(), path + " is served already");
  ::unlink(path.c_str());
}

}  // namespace

// All state of a server and its clients belongs to one strand.
class ControlServer::Impl : public std::enable_shared_from_this<ControlServer::Impl> {
 public:
  Impl(AsioZemProvider& provider, const CommandTable& table, std::string path)
      : table_(table), path_(std::move(path)), strand_(asio::make_strand(provider.io())), acceptor_(strand_) {
    RemoveStaleSocket(provider.io(), path_);
    acceptor_.open();
    acceptor_.bind(Local::endpoint(path_));
    acceptor_.listen();
  }

  void Accept() {
    acceptor_.async_accept(
        strand_, [self = shared_from_this()](boost::system::error_code error, Local::socket socket) {
          if (self->closed_) return;
          if (!error) {
            auto client = std::make_shared<Client>(*self, std::move(socket));
            self->clients_.insert(client);
            client->Read();
          }
          if (error != asio::error::operation_aborted) self->Accept();
        });
  }

  void Close() {
    ::unlink(path_.c_str());
    closed_ = true;
    asio::post(strand_, [self = shared_from_this()] {
      boost::system::error_code ignored;
      self->acceptor_.close(ignored);
      for (const auto& client : std::exchange(self->clients_, {})) client->Close();
    });
  }

 private:
  class Client : public std::enable_shared_from_this<Client> {
   public:
    Client(Impl& server, Local::socket socket)
        : server_(server.weak_from_this()), strand_(server.strand_), socket_(std::move(socket)) {}

    void Read() {
      socket_.async_read_some(asio::buffer(chunk_),
                              [self = shared_from_this()](boost::system::error_code error, size_t size) {
                                if (error) return self->ReadEnded();
                                self->input_.append(self->chunk_.data(), size);
                                self->Next();
                              });
    }

    void Close() {
      boost::system::error_code ignored;
      socket_.close(ignored);
    }

   private:
    // Runs the next complete line, or reads on.
    void Next() {
      input_.erase(0, input_.find_first_not_of(" \t\r\n"));
      const size_t end = input_.find('\n');
      if (end == std::string::npos && input_.size() <= kMaxLine) return ended_ ? Leave() : Read();
      if (end == std::string::npos || end > kMaxLine) {
        leave_after_write_ = true;
        Json answer = JsonObject();
        AddMember(answer.get(), "ok", false);
        AddMember(answer.get(), "error", "the line is longer than 1 MiB");
        return Write(*answer);
      }
      const std::string line = input_.substr(0, end);
      input_.erase(0, end + 1);
      const std::shared_ptr<Impl> server = server_.lock();
      if (!server || server->closed_) return Close();
      server->table_.Execute(line, Reply([weak = weak_from_this()](Json answer) {
                               const std::shared_ptr<Client> client = weak.lock();
                               if (!client) return;
                               // A handler may answer from within its call or from another thread.  Both
                               // answers are posted to the strand, so that a client that sends many lines at
                               // once does not deepen the stack.
                               asio::post(client->strand_,
                                          [weak, shared = std::shared_ptr<cJSON>(std::move(answer))] {
                                            if (const auto self = weak.lock()) self->Write(*shared);
                                          });
                             }));
    }

    void Write(const cJSON& answer) {
      output_ = JsonText(&answer) + "\n";
      asio::async_write(socket_, asio::buffer(output_),
                        [self = shared_from_this()](boost::system::error_code error, size_t) {
                          if (error || self->leave_after_write_) return self->Leave();
                          self->Next();
                        });
    }

    // A client may send its commands and shut down its sending side; complete commands are still answered.
    void ReadEnded() {
      ended_ = true;
      if (!input_.empty() && input_.back() != '\n') input_ += '\n';
      Next();
    }

    void Leave() {
      Close();
      if (const auto server = server_.lock()) server->clients_.erase(shared_from_this());
    }

    const std::weak_ptr<Impl> server_;  // which holds this
    Strand strand_;
    Local::socket socket_;
    std::array<char, 4096> chunk_{};
    std::string input_;
    std::string output_;
    bool ended_ = false;
    bool leave_after_write_ = false;
  };

  const CommandTable& table_;
  const std::string path_;
  Strand strand_;
  Local::acceptor acceptor_;
  std::set<std::shared_ptr<Client>> clients_;
  std::atomic<bool> closed_{false};
};

ControlServer::ControlServer(AsioZemProvider& provider, const CommandTable& table, const std::string& path)
    : impl_(std::make_shared<Impl>(provider, table, path)) {
  impl_->Accept();
}

ControlServer::~ControlServer() { impl_->Close(); }

}  // namespace zem::sim
