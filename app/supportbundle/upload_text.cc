#include "app/supportbundle/upload_text.h"

#include <algorithm>
#include <filesystem>
#include <string_view>

#include "app/supportbundle/worker_info.h"

namespace zem::Tarvik {
namespace {

class ObjectText {
 public:
  void Open(const char* key = nullptr) {
    if (key != nullptr) Key(key);
    text_ += '{';
    first_ = true;
  }
  void Close() { text_ += '}'; }
  void Add(const char* key, const std::string& text) {
    Key(key);
    text_ += '"';
    text_ += text;
    text_ += '"';
  }
  void AddBare(const char* key, std::string_view word) {
    Key(key);
    text_ += word;
  }
  std::string& text() { return text_; }

 private:
  void Key(const char* key) {
    if (!first_) text_ += ", ";
    first_ = false;
    text_ += '"';
    text_ += key;
    text_ += "\": ";
  }

  std::string text_;
  bool first_ = true;
};

constexpr size_t kTypicalText = 1024;  // no copy of the password is left behind by a string that grows

}  // namespace

std::optional<std::string> UploadText(const BundleRequest& request, const std::string& local_path) {
  ObjectText object;
  object.text().reserve(kTypicalText + local_path.size() + request.file_password.size() +
                        request.fqdn.size() + request.ipv4_address.size() + request.ipv6_address.size() +
                        request.file_directory.size() + request.generate_id.size());
  object.Open();
  object.Add("local_path", local_path);
  object.Add("generate_id", request.generate_id);
  object.Open("manager_info");
  object.Add("server", request.manager_server);
  object.AddBare("port", std::to_string(request.manager_port));
  object.Add("thumbprint", request.thumbprint);
  object.AddBare("fqdn_required", request.fqdn_required ? "true" : "false");
  object.Add("fqdn", request.fqdn);
  object.Add("ipv4_address", request.ipv4_address);
  object.Add("ipv6_address", request.ipv6_address);
  object.Close();
  if (request.file_port != 0) {
    object.Open("file_server_info");
    object.Add("server", request.file_server);
    object.AddBare("port", std::to_string(request.file_port));
    object.Add("uri", request.file_directory + "/" + std::filesystem::path(local_path).filename().string());
    object.Open("protocol");
    object.Add("name", request.file_protocol);
    object.Add("ssh_fingerprint", request.file_fingerprint);
    object.Open("authentication_scheme");
    object.Add("scheme_name", "password");
    object.Add("username", request.file_user);
    object.Add("password", request.file_password);
    object.Close();
    object.Close();
    object.Close();
  }
  object.Close();
  const bool printable =
      std::ranges::none_of(object.text(), [](char c) { return static_cast<unsigned char>(c) < 0x20; });
  if (!printable) return std::nullopt;
  return std::move(object.text());
}

}  // namespace zem::Tarvik
