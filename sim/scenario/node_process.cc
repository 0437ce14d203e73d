#include "sim/scenario/node_process.h"

#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "platform/core/thread.h"

extern char** environ;

namespace zem::sim {
namespace {

constexpr auto kStart = std::chrono::seconds(30);
constexpr auto kPause = std::chrono::milliseconds(20);

}  // namespace

NodeProcess::NodeProcess(const std::string& program, std::vector<std::string> arguments) {
  char directory[] = "/tmp/zem-node.XXXXXX";
  if (::mkdtemp(directory) == nullptr) throw std::system_error(errno, std::generic_category(), directory);
  directory_ = directory;
  std::vector<std::string> words = {program, "run", "--dir", directory_};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  const int result = ::posix_spawn(&pid_, program.c_str(), nullptr, nullptr, argv.data(), environ);
  if (result != 0) throw std::system_error(result, std::generic_category(), program);
  client_ = std::make_unique<ControlClient>(directory_ + "/control", kStart);
}

NodeProcess::~NodeProcess() {
  if (pid_ > 0) {
    ::kill(pid_, SIGTERM);
    while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

Json NodeProcess::Do(const std::string& command) {
  Json answer(cJSON_Parse(client_->Execute(command).c_str()));
  if (answer && cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(answer.get(), "ok"))) {
    return Json(cJSON_DetachItemFromObjectCaseSensitive(answer.get(), "result"));
  }
  throw std::runtime_error(command.substr(0, 80) + ": " + TextAt(answer.get(), "error"));
}

Json NodeProcess::Await(const std::string& command, Duration patience,
                        const std::function<bool(const cJSON*)>& good) {
  const TimePoint limit = Clock::Process().Now() + patience;
  for (;;) {
    std::string problem = "not so";
    try {
      Json result = Do(command);
      if (good(result.get())) return result;
      char* const text = cJSON_PrintUnformatted(result.get());
      problem = text == nullptr ? "" : text;
      std::free(text);
    } catch (const std::runtime_error& e) {
      problem = e.what();
    }
    if (Clock::Process().Now() > limit)
      throw std::runtime_error(command.substr(0, 80) + " in vain: " + problem);
    SleepFor(kPause);
  }
}

const cJSON* At(const cJSON* json, const std::string& path) {
  size_t begin = 0;
  while (json != nullptr && begin <= path.size()) {
    const size_t dot = std::min(path.find('.', begin), path.size());
    json = cJSON_GetObjectItemCaseSensitive(json, path.substr(begin, dot - begin).c_str());
    begin = dot + 1;
  }
  return json;
}

double NumberAt(const cJSON* json, const std::string& path) {
  const cJSON* const found = At(json, path);
  return cJSON_IsNumber(found) ? found->valuedouble : 0;
}

std::string TextAt(const cJSON* json, const std::string& path) {
  const cJSON* const found = At(json, path);
  return cJSON_IsString(found) ? found->valuestring : "";
}

}  // namespace zem::sim
