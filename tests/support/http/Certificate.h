#pragma once

#include <openssl/x509.h>

#include <memory>

namespace kestrine::test {

/// A fresh key and a certificate for "localhost" that it signed itself, valid for a day.
class SelfSigned {
 public:
  SelfSigned();
  [[nodiscard]] X509* certificate() const { return certificate_.get(); }
  [[nodiscard]] EVP_PKEY* key() const { return key_.get(); }

 private:
  struct Release {
    void operator()(X509* certificate) const { X509_free(certificate); }
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  };
  std::unique_ptr<EVP_PKEY, Release> key_;
  std::unique_ptr<X509, Release> certificate_;
};

}  // namespace kestrine::test
