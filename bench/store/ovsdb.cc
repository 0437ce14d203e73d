// ovsdb-server of the distribution, with clients that do as little as possible: they write JSON by hand, and
// search their input only for the data that they wait for.

#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string_view>

#include "bench/store/spawned.h"
#include "bench/store/subject.h"
#include "platform/core/thread.h"
#include "platform/core/unique_fd.h"
#include "platform/core/unix_socket.h"

namespace zem::bench {
namespace {

constexpr const char* kSchema =
    R"({"name":"Bench","version":"1.0.0","tables":{"Object":{"columns":{"id":{"type":"string"},)"
    R"("text":{"type":"string"},"number":{"type":"integer"}},"indexes":[["id"]],"isRoot":true}}})";

// A stream of JSON texts over a socket.
class Connection {
 public:
  explicit Connection(const std::string& path) : socket_(OpenUnixStream()) {
    for (int tries = 0; ConnectUnix(socket_.get(), path) != 0; ++tries) {
      if (tries == 1000) throw std::runtime_error("ovsdb-server does not listen");
      SleepFor(std::chrono::milliseconds(10));
      socket_ = OpenUnixStream();
    }
  }

  void Send(std::string_view text) {
    while (!text.empty()) {
      const ssize_t sent = ::send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL);
      if (sent <= 0) throw std::runtime_error("ovsdb-server has gone");
      text.remove_prefix(static_cast<size_t>(sent));
    }
  }

  // Returns the next whole text, which is valid until the next call.
  std::string_view Receive() {
    buffer_.erase(0, end_);
    end_ = 0;
    int depth = 0;
    bool quoted = false;
    for (size_t at = 0;; ++at) {
      while (at == buffer_.size()) Fill();
      const char c = buffer_[at];
      if (quoted) {
        if (c == '\\') {
          ++at;
        } else if (c == '"') {
          quoted = false;
        }
      } else if (c == '"') {
        quoted = true;
      } else if (c == '{') {
        ++depth;
      } else if (c == '}' && --depth == 0) {
        end_ = at + 1;
        return std::string_view(buffer_).substr(0, end_);
      }
    }
  }

 private:
  void Fill() {
    const size_t before = buffer_.size();
    constexpr size_t kPiece = 256 * 1024;
    buffer_.resize(before + kPiece);
    const ssize_t count = ::recv(socket_.get(), buffer_.data() + before, kPiece, 0);
    if (count <= 0) throw std::runtime_error("ovsdb-server has gone");
    buffer_.resize(before + static_cast<size_t>(count));
  }

  UniqueFd socket_;
  std::string buffer_;
  size_t end_ = 0;
};

class TempFolder {
 public:
  TempFolder() {
    path_ = std::filesystem::temp_directory_path() / "bench_store.XXXXXX";
    if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no folder for the database");
  }
  ~TempFolder() { std::filesystem::remove_all(path_); }
  std::string Path(const char* name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

class Ovsdb final : public Subject {
 public:
  Ovsdb() {
    std::ofstream(folder_.Path("schema")) << kSchema;
    const std::string create =
        "/usr/bin/ovsdb-tool create " + folder_.Path("db") + " " + folder_.Path("schema");
    if (std::system(create.c_str()) != 0) throw std::runtime_error("ovsdb-tool failed");
    server_ = std::make_unique<Spawned>(std::vector<std::string>{
        "/usr/sbin/ovsdb-server", "--remote=punix:" + address(), "-vconsole:off", "-vsyslog:off",
        "--unixctl=" + folder_.Path("ctl"), "--no-chdir", folder_.Path("db")});
    writer_ = std::make_unique<Connection>(address());
  }

  std::string address() const override { return folder_.Path("socket"); }

  void Put(Object first, uint32_t count) override {
    std::string text = R"({"id":1,"method":"transact","params":["Bench")";
    for (uint32_t i = 0; i < count; ++i) {
      const std::string number = std::to_string(i + 1 == count ? first.number : 0);
      text += R"(,{"op":"insert","table":"Object","row":{"id":")" + KeyText(first.key + i) + R"(","text":")" +
              ObjectText() + R"(","number":)" + number + "}}";
    }
    text += "]}";
    writer_->Send(text);
    ++under_way_;
    // Answers are read while there is input, so that the server never waits for this client.
    while (under_way_ > kMostUnderWay) TakeAnswer();
  }

  void Flush() override {
    while (under_way_ > 0) TakeAnswer();
  }

 private:
  static constexpr int kMostUnderWay = 2;

  void TakeAnswer() {
    const std::string_view answer = writer_->Receive();
    if (answer.find(R"("error":null)") == std::string_view::npos ||
        answer.find("constraint violation") != std::string_view::npos) {
      throw std::runtime_error("ovsdb-server refuses a transaction: " + std::string(answer.substr(0, 200)));
    }
    --under_way_;
  }

  TempFolder folder_;
  std::unique_ptr<Spawned> server_;
  std::unique_ptr<Connection> writer_;
  int under_way_ = 0;
};

}  // namespace

std::unique_ptr<Subject> MakeOvsdb() { return std::make_unique<Ovsdb>(); }

void WatchOvsdb(const std::string& address, const Watcher& watcher) {
  constexpr std::string_view kNumber = R"("number":)";
  Connection connection(address);
  connection.Send(
      R"({"id":1,"method":"monitor","params":["Bench",1,{"Object":{"columns":["id","text","number"]}}]})");
  bool complete = false;
  while (true) {
    const std::string_view text = connection.Receive();
    uint64_t objects = 0;
    for (size_t at = text.find(kNumber); at != std::string_view::npos; at = text.find(kNumber, at + 1)) {
      ++objects;
      int64_t number = 0;
      std::from_chars(text.data() + at + kNumber.size(), text.data() + text.size(), number);
      if (complete && number != 0) watcher.told(number);
    }
    if (!std::exchange(complete, true)) watcher.complete(objects);
  }
}

}  // namespace zem::bench
