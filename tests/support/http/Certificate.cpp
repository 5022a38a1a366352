#include "tests/support/http/Certificate.h"

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/x509v3.h>

#include <stdexcept>

namespace kestrine::test {

SelfSigned::SelfSigned() : key_(EVP_EC_gen("P-256")), certificate_(X509_new()) {
  if (!key_ || !certificate_) throw std::runtime_error("no key or certificate for the test's server");
  X509* const certificate = certificate_.get();
  X509_set_version(certificate, X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate), -60);
  X509_gmtime_adj(X509_getm_notAfter(certificate), 24L * 60 * 60);
  X509_set_pubkey(certificate, key_.get());
  X509_NAME* const name = X509_get_subject_name(certificate);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
  X509_set_issuer_name(certificate, name);
  X509_EXTENSION* const names = X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1");
  X509_add_ext(certificate, names, -1);
  X509_EXTENSION_free(names);
  if (X509_sign(certificate, key_.get(), EVP_sha256()) == 0) throw std::runtime_error("the test's certificate cannot be signed");
}

}  // namespace kestrine::test
