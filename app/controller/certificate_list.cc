#include "app/controller/certificate_list.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <memory>

namespace zem::controller {
namespace {

constexpr std::string_view kEnd = "-----END CERTIFICATE-----";
constexpr std::string_view kBlanks = " \t\r\n";

template <auto kFree>
struct Free {
  template <class T>
  void operator()(T* object) const {
    kFree(object);
  }
};
using Bio = std::unique_ptr<BIO, Free<BIO_free_all>>;
using X509Ptr = std::unique_ptr<X509, Free<X509_free>>;

std::optional<Certificate> Parse(std::string_view pem) {
  const Bio source(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  const X509Ptr parsed(source ? PEM_read_bio_X509(source.get(), nullptr, nullptr, nullptr) : nullptr);
  // The error queue belongs to the thread; other users of the library would find the entries.
  ERR_clear_error();
  if (!parsed) return std::nullopt;
  unsigned char* bytes = nullptr;
  const int size = i2d_X509(parsed.get(), &bytes);
  if (size <= 0) return std::nullopt;
  Certificate certificate{std::string(reinterpret_cast<const char*>(bytes), static_cast<size_t>(size))};
  OPENSSL_free(bytes);
  return certificate;
}

}  // namespace

std::optional<std::vector<Certificate>> SplitCertificates(std::string_view pem) {
  std::vector<Certificate> certificates;
  for (size_t end = pem.find(kEnd); end != std::string_view::npos; end = pem.find(kEnd)) {
    const size_t length = end + kEnd.size();
    auto certificate = Parse(pem.substr(0, length));
    if (!certificate) return std::nullopt;
    certificates.push_back(std::move(*certificate));
    pem.remove_prefix(length);
  }
  if (certificates.empty() || pem.find_first_not_of(kBlanks) != std::string_view::npos) return std::nullopt;
  return certificates;
}

std::string PemText(const std::vector<Certificate>& certificates) {
  const Bio text(BIO_new(BIO_s_mem()));
  if (!text) return {};
  for (const Certificate& certificate : certificates) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(certificate.der.data());
    const X509Ptr parsed(d2i_X509(nullptr, &bytes, static_cast<long>(certificate.der.size())));
    if (!parsed || PEM_write_bio_X509(text.get(), parsed.get()) != 1) {
      ERR_clear_error();
      return {};
    }
  }
  char* bytes = nullptr;
  const long size = BIO_get_mem_data(text.get(), &bytes);
  return size > 0 ? std::string(bytes, static_cast<size_t>(size)) : std::string();
}

}  // namespace zem::controller
