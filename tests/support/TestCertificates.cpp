#include "tests/support/TestCertificates.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <cstdio>
#include <stdexcept>

namespace orbiq::test {
namespace {

void require(bool done) {
  if (!done) throw std::runtime_error("cannot make a certificate");
}

/// Valid from an hour ago. A null issuer makes it self-signed.
TlsIdentity certify(const std::string& name, const TlsIdentity* issuer, int kind,
                    const std::string& value, long secondsLeft = 3600) {
  static std::atomic<long> serial{1};
  TlsIdentity made{{EVP_EC_gen("P-256"), EVP_PKEY_free}, {X509_new(), X509_free}};
  if (issuer == nullptr) issuer = &made;
  X509* const raw = made.certificate.get();
  X509_set_version(raw, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(raw), serial++);
  X509_gmtime_adj(X509_getm_notBefore(raw), -3600);
  X509_gmtime_adj(X509_getm_notAfter(raw), secondsLeft);
  X509_set_pubkey(raw, made.key.get());
  X509_NAME_add_entry_by_txt(X509_get_subject_name(raw), "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
  X509_set_issuer_name(raw, X509_get_subject_name(issuer->certificate.get()));
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer->certificate.get(), raw, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str());
  require(extension != nullptr && X509_add_ext(raw, extension, -1) == 1);
  X509_EXTENSION_free(extension);
  require(X509_sign(raw, issuer->key.get(), EVP_sha256()) != 0);
  return made;
}

/// Or a certificate of one would be taken for a forged one of the other.
std::string newAuthorityName() {
  static std::atomic<int> count{0};
  return "test authority " + std::to_string(++count);
}

}  // namespace

CertificateAuthority::CertificateAuthority()
    : _identity(certify(newAuthorityName(), nullptr, NID_basic_constraints, "critical,CA:TRUE")) {
  std::FILE* const file = std::fopen(bundle().c_str(), "w");
  require(file != nullptr && PEM_write_X509(file, _identity.certificate.get()) == 1);
  std::fclose(file);
}

TlsIdentity CertificateAuthority::issue(const std::string& names) const {
  return certify("test server", &_identity, NID_subject_alt_name, names);
}

TlsIdentity CertificateAuthority::issueExpired() const {
  return certify("test server", &_identity, NID_subject_alt_name, kLoopback, -60);
}

TlsIdentity CertificateAuthority::selfSigned() {
  return certify("test server", nullptr, NID_subject_alt_name, kLoopback);
}

}  // namespace orbiq::test
