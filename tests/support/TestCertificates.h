#pragma once

#include <memory>
#include <string>

#include "tests/support/TemporaryDirectory.h"

using EVP_PKEY = struct evp_pkey_st;
using X509 = struct x509_st;

namespace orbiq::test {

struct TlsIdentity {
  std::shared_ptr<EVP_PKEY> key;
  std::shared_ptr<X509> certificate;
  bool speaksOnlyTls10 = false;
};

/// A certificate authority of the test's own, made anew each time.
class CertificateAuthority {
 public:
  CertificateAuthority();

  /// The file, in PEM, for a client that is to trust it.
  std::string bundle() const { return (_directory.path() / "ca.pem").string(); }
  /// A server's identity. `names` is a list such as "IP:127.0.0.1,DNS:localhost".
  TlsIdentity issue(const std::string& names = kLoopback) const;
  /// One that was valid until a minute ago.
  TlsIdentity issueExpired() const;
  /// One that vouches for itself.
  static TlsIdentity selfSigned();

 private:
  static constexpr char kLoopback[] = "IP:127.0.0.1,DNS:localhost";

  const TlsIdentity _identity;
  const TemporaryDirectory _directory;
};

}  // namespace orbiq::test
