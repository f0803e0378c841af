#include "netutil/WebSocketServer.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <memory>

namespace qelnk::test {

TestCertificate::TestCertificate() {
  const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  const std::unique_ptr<X509, decltype(&X509_free)> certificate(X509_new(), X509_free);
  X509_set_version(certificate.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -60);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
  X509_set_pubkey(certificate.get(), key.get());
  X509_NAME *name = X509_get_subject_name(certificate.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>("localhost"), -1, -1, 0);
  X509_set_issuer_name(certificate.get(), name);
  X509_EXTENSION *names = X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, "DNS:localhost");
  X509_add_ext(certificate.get(), names, -1);
  X509_EXTENSION_free(names);
  EXPECT_GT(X509_sign(certificate.get(), key.get(), EVP_sha256()), 0);

  SSL_CTX_use_certificate(server_.native_handle(), certificate.get());
  SSL_CTX_use_PrivateKey(server_.native_handle(), key.get());
  char path[] = "/tmp/qelnk-certificate-XXXXXX";
  const int descriptor = mkstemp(path);
  FILE *file = fdopen(descriptor, "w");
  PEM_write_X509(file, certificate.get());
  fclose(file);
  file_ = path;
}

}  // namespace qelnk::test
