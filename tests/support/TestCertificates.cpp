#include "tests/support/TestCertificates.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <stdexcept>

namespace orbiq::test {
namespace {

void require(bool done) {
  if (!done) throw std::runtime_error("cannot make a certificate");
}

/// Valid from an hour ago. A null issuer makes it self-signed. Its name is its own: or a
/// certificate of one authority would be taken for a forged one of the other.
TlsIdentity certify(const TlsIdentity* issuer, int kind, const std::string& value,
                    long secondsLeft = 3600) {
  static long serial = 0;
  TlsIdentity made{{EVP_EC_gen("P-256"), EVP_PKEY_free}, {X509_new(), X509_free}};
  if (issuer == nullptr) issuer = &made;
  X509* const raw = made.certificate.get();
  X509_set_version(raw, 2);
  const std::string name = "test " + std::to_string(++serial);
  ASN1_INTEGER_set(X509_get_serialNumber(raw), serial);
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

}  // namespace

CertificateAuthority::CertificateAuthority()
    : _identity(certify(nullptr, NID_basic_constraints, "critical,CA:TRUE")) {
  std::FILE* const file = std::fopen(bundle().c_str(), "w");
  require(file != nullptr && PEM_write_X509(file, _identity.certificate.get()) == 1);
  std::fclose(file);
}

TlsIdentity CertificateAuthority::issue(const std::string& names) const {
  return certify(&_identity, NID_subject_alt_name, names);
}

TlsIdentity CertificateAuthority::issueExpired() const {
  return certify(&_identity, NID_subject_alt_name, kLoopback, -60);
}

TlsIdentity CertificateAuthority::selfSigned() {
  return certify(nullptr, NID_subject_alt_name, kLoopback);
}

}  // namespace orbiq::test
