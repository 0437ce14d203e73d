#include "sim/guest/wire/messages.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace zem::sim::guest {
namespace {

constexpr std::array<const char*, kOperations> kNames = {
    "EndvatGetVMId",
    "EndvatQueryLogonSessionsEx",
    "EndvatGetSolutionId",
    "EndvatGetHealthStatus",
    "EndvatQuerySystemInfo",
    "EndvatQuerySessionInfo",
    "EndvatQueryProcessInfo",
    "EndvatNetworkGetEventInfo",
    "EndvatQueryNetworkEventInformation",
    "EndvatQuerySystemEventInformation",
    "EndvatQuerySidInfo",
    "EndvatLinuxQueryUidInfo",
    "EndvatLinuxQueryGidInfo",
    "EndvatSetVMData",
    "EndvatQueryConfiguration",
    "EndvatSetConfiguration",
    "EndvatConfigureMux",
    "done",
    "violation",
    "events",
};

template <class T>
void Put(std::string& out, T value) {
  out.append(reinterpret_cast<const char*>(&value), sizeof(value));
}

void PutString(std::string& out, std::string_view text) {
  Put<uint32_t>(out, static_cast<uint32_t>(text.size()));
  out += text;
}

class Reader {
 public:
  explicit Reader(std::string_view bytes) : rest_(bytes) {}

  template <class T>
  T Take() {
    T value{};
    if (rest_.size() < sizeof(T)) {
      good_ = false;
      return value;
    }
    std::memcpy(&value, rest_.data(), sizeof(T));
    rest_.remove_prefix(sizeof(T));
    return value;
  }

  std::string TakeString() {
    const auto size = Take<uint32_t>();
    if (size > rest_.size()) {
      good_ = false;
      return {};
    }
    std::string text(rest_.substr(0, size));
    rest_.remove_prefix(size);
    return text;
  }

  bool good() const { return good_; }
  bool done() const { return good_ && rest_.empty(); }

 private:
  std::string_view rest_;
  bool good_ = true;
};

bool Transfer(int fd, char* bytes, size_t size, bool write) {
  for (size_t done = 0; done < size;) {
    const ssize_t n = write ? ::send(fd, bytes + done, size - done, MSG_NOSIGNAL)
                            : ::recv(fd, bytes + done, size - done, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

const char* OperationName(Operation operation) { return kNames[static_cast<size_t>(operation)]; }

std::string Encode(const Question& question) {
  std::string out;
  Put(out, static_cast<uint32_t>(question.operation));
  Put(out, question.guest);
  Put(out, question.event);
  Put(out, question.kind);
  Put(out, question.number);
  Put(out, question.number2);
  Put(out, question.capacity);
  PutString(out, question.text);
  return out;
}

std::optional<Question> DecodeQuestion(std::string_view bytes) {
  Reader reader(bytes);
  Question question;
  const auto operation = reader.Take<uint32_t>();
  if (operation >= kOperations) return std::nullopt;
  question.operation = static_cast<Operation>(operation);
  question.guest = reader.Take<uint64_t>();
  question.event = reader.Take<uint64_t>();
  question.kind = reader.Take<uint32_t>();
  question.number = reader.Take<uint64_t>();
  question.number2 = reader.Take<uint64_t>();
  question.capacity = reader.Take<uint32_t>();
  question.text = reader.TakeString();
  return reader.done() ? std::optional(question) : std::nullopt;
}

std::string Encode(const Answer& answer) {
  std::string out;
  Put(out, answer.status);
  Put(out, answer.delay_ms);
  Put(out, answer.number);
  PutString(out, answer.buffer.bytes);
  for (const uint32_t pointer : answer.buffer.pointers) Put(out, pointer);
  return out;
}

std::optional<Answer> DecodeAnswer(std::string_view bytes) {
  Reader reader(bytes);
  Answer answer;
  answer.status = reader.Take<uint32_t>();
  answer.delay_ms = reader.Take<uint32_t>();
  answer.number = reader.Take<uint64_t>();
  answer.buffer.bytes = reader.TakeString();
  while (reader.good() && !reader.done()) {
    const auto pointer = reader.Take<uint32_t>();
    if (size_t{pointer} + 8 > answer.buffer.bytes.size()) return std::nullopt;
    answer.buffer.pointers.push_back(pointer);
  }
  return reader.done() ? std::optional(answer) : std::nullopt;
}

std::string Encode(const Event& event) {
  std::string out;
  Put(out, static_cast<uint32_t>(event.kind));
  Put(out, event.guest);
  Put(out, event.run);
  Put(out, event.number);
  Put(out, event.type);
  return out;
}

std::optional<Event> DecodeEvent(std::string_view bytes) {
  Reader reader(bytes);
  Event event;
  const auto kind = reader.Take<uint32_t>();
  if (kind > static_cast<uint32_t>(Event::Kind::kPanic)) return std::nullopt;
  event.kind = static_cast<Event::Kind>(kind);
  event.guest = reader.Take<uint64_t>();
  event.run = reader.Take<uint64_t>();
  event.number = reader.Take<uint64_t>();
  event.type = reader.Take<uint32_t>();
  return reader.done() ? std::optional(event) : std::nullopt;
}

bool WriteMessage(int fd, std::string_view bytes) {
  std::string framed;
  Put<uint32_t>(framed, static_cast<uint32_t>(bytes.size()));
  framed += bytes;
  return Transfer(fd, framed.data(), framed.size(), true);
}

std::optional<std::string> ReadMessage(int fd) {
  uint32_t size = 0;
  if (!Transfer(fd, reinterpret_cast<char*>(&size), sizeof(size), false) || size > kMaxMessage)
    return std::nullopt;
  std::string bytes(size, '\0');
  if (!Transfer(fd, bytes.data(), size, false)) return std::nullopt;
  return bytes;
}

}  // namespace zem::sim::guest
