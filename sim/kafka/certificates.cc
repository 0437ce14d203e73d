#include "sim/kafka/certificates.h"

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <cctype>
#include <memory>
#include <stdexcept>

namespace zem::sim {
namespace {

constexpr int kYearDays = 365;
constexpr int kDaySeconds = 86400;
constexpr int kVersion3 = 2;

template <auto function>
struct Free {
  template <class T>
  void operator()(T* object) const {
    function(object);
  }
};
using Key = std::unique_ptr<EVP_PKEY, Free<&EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Free<&X509_free>>;
using Memory = std::unique_ptr<BIO, Free<&BIO_free_all>>;
using Extension = std::unique_ptr<X509_EXTENSION, Free<&X509_EXTENSION_free>>;

void Need(bool done, const char* what) {
  if (!done) throw std::runtime_error(std::string("certificates: ") + what);
}

std::string Text(BIO* memory) {
  char* data = nullptr;
  const long size = BIO_get_mem_data(memory, &data);
  return {data, static_cast<size_t>(size)};
}

KeyPair Pem(X509* certificate, EVP_PKEY* key) {
  const Memory first(BIO_new(BIO_s_mem()));
  const Memory second(BIO_new(BIO_s_mem()));
  Need(PEM_write_bio_X509(first.get(), certificate) == 1, "write a certificate");
  Need(PEM_write_bio_PrivateKey(second.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1,
       "write a key");
  return {Text(first.get()), Text(second.get())};
}

void Extend(X509* certificate, X509* issuer, int kind, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const Extension extension(X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
  Need(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1, "extend a certificate");
}

Certificate Draft(const std::string& name, EVP_PKEY* key, int days) {
  Certificate certificate(X509_new());
  Need(certificate != nullptr && X509_set_version(certificate.get(), kVersion3) == 1, "make a certificate");
  uint64_t serial = 0;
  Need(RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof(serial)) == 1, "take a number");
  ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate.get()), serial >> 1U);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -kYearDays * kDaySeconds);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), static_cast<long>(days) * kDaySeconds);
  X509_set_pubkey(certificate.get(), key);
  X509_NAME* const subject = X509_get_subject_name(certificate.get());
  X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
  return certificate;
}

Key NewKey() {
  Key key(EVP_EC_gen("P-256"));
  Need(key != nullptr, "make a key");
  return key;
}

}  // namespace

CertificateAuthority::CertificateAuthority(const std::string& name) {
  const Key key = NewKey();
  const Certificate certificate = Draft(name, key.get(), kYearDays);
  X509_set_issuer_name(certificate.get(), X509_get_subject_name(certificate.get()));
  Extend(certificate.get(), certificate.get(), NID_basic_constraints, "critical,CA:TRUE");
  Extend(certificate.get(), certificate.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
  Need(X509_sign(certificate.get(), key.get(), EVP_sha256()) > 0, "sign a certificate");
  own_ = Pem(certificate.get(), key.get());
}

KeyPair CertificateAuthority::Sign(const std::string& name, const std::string& address, int days) const {
  const Memory own_certificate(BIO_new_mem_buf(own_.certificate.data(), -1));
  const Memory own_key(BIO_new_mem_buf(own_.key.data(), -1));
  const Certificate issuer(PEM_read_bio_X509(own_certificate.get(), nullptr, nullptr, nullptr));
  const Key issuer_key(PEM_read_bio_PrivateKey(own_key.get(), nullptr, nullptr, nullptr));
  Need(issuer != nullptr && issuer_key != nullptr, "read the authority");
  const Key key = NewKey();
  const Certificate certificate = Draft(name, key.get(), days);
  X509_set_issuer_name(certificate.get(), X509_get_subject_name(issuer.get()));
  const bool number = !address.empty() && std::isdigit(static_cast<unsigned char>(address[0])) != 0;
  Extend(certificate.get(), issuer.get(), NID_subject_alt_name, (number ? "IP:" : "DNS:") + address);
  Need(X509_sign(certificate.get(), issuer_key.get(), EVP_sha256()) > 0, "sign a certificate");
  return Pem(certificate.get(), key.get());
}

}  // namespace zem::sim
