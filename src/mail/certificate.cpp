#include "mail/certificate.h"

#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <ctime>
#include <memory>

#include "mail/dovecot_config.h"
#include "system/files.h"
#include "system/program.h"
#include "system/text.h"

namespace {

void Add(std::vector<Certificate>& found, DaemonId reader, const std::string& file, const std::string& key) {
  if (file.empty() || file == "none") return;
  for (Certificate& known : found) {
    if (known.file != file || known.key != key) continue;
    known.readers.insert(reader);
    return;
  }
  Certificate fresh;
  fresh.file = file;
  fresh.key = key;
  fresh.readers = {reader};
  found.push_back(fresh);
}

void AddPostfix(std::vector<Certificate>& found, const PostfixConfig& postfix) {
  if (std::none_of(postfix.services.begin(), postfix.services.end(), [&](const PostfixService& service) {
        return service.type == "inet" && TlsOf(postfix, service) != TlsUse::kNever;
      }))
    return;
  std::string key;
  for (const std::string& file : Words(postfix.Value("smtpd_tls_chain_files"))) {  // a key, its certificate
    const std::string text = ReadFile(file);
    if (Contains(text, "PRIVATE KEY-----")) key = file;
    if (Contains(text, "-----BEGIN CERTIFICATE")) Add(found, DaemonId::kPostfix, file, key);
  }
  if (key.empty()) {
    for (const std::string kind : {"", "ec", "d"}) {
      Add(found, DaemonId::kPostfix, postfix.Value("smtpd_tls_" + kind + "cert_file"),
          postfix.Value("smtpd_tls_" + kind + "key_file"));
    }
  }
  for (const PostfixService& service : postfix.services) {
    const auto own = service.options.find("smtpd_tls_cert_file");
    if (own != service.options.end())
      Add(found, DaemonId::kPostfix, own->second, postfix.Value(service, "smtpd_tls_key_file"));
  }
}

void AddDovecot(std::vector<Certificate>& found) {
  try {
    for (const auto& [file, key] : DovecotCertificates(ReadDovecot()))
      Add(found, DaemonId::kDovecot, file, key);
  } catch (const Fault&) {  // its checker says why
  }
}

template <typename Object>
using Owned = std::unique_ptr<Object, void (*)(Object*)>;

Owned<BIO> Reader(const std::string& pem) {
  return {BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free_all};
}

Owned<X509> CertificateIn(const std::string& pem) {
  return {PEM_read_bio_X509(Reader(pem).get(), nullptr, nullptr, nullptr), X509_free};
}

// A password that is asked for is empty: nobody could give the daemons one either.
Owned<EVP_PKEY> KeyIn(const std::string& pem) {
  std::string password;
  return {PEM_read_bio_PrivateKey(Reader(pem).get(), nullptr, nullptr, password.data()), EVP_PKEY_free};
}

std::time_t TimeOf(const ASN1_TIME* time) {
  std::tm parts = {};
  ASN1_TIME_to_tm(time, &parts);
  return timegm(&parts);
}

std::string FingerprintOf(const X509& certificate) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  X509_digest(&certificate, EVP_sha256(), digest, &size);
  return {digest, digest + size};
}

// The names in DNS, with blanks between; of old certificates, which have none, the common name.
std::string NamesOf(const X509& certificate) {
  std::string names;
  const Owned<GENERAL_NAMES> all(
      static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(&certificate, NID_subject_alt_name, nullptr, nullptr)),
      GENERAL_NAMES_free);
  for (int i = 0; i < sk_GENERAL_NAME_num(all.get()); ++i) {
    const GENERAL_NAME* name = sk_GENERAL_NAME_value(all.get(), i);
    if (name->type != GEN_DNS) continue;
    const ASN1_STRING* text = name->d.dNSName;
    names += names.empty() ? "" : " ";
    names.append(reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
                 static_cast<size_t>(ASN1_STRING_length(text)));
  }
  char common[256] = "";
  if (names.empty())
    X509_NAME_get_text_by_NID(X509_get_subject_name(&certificate), NID_commonName, common, sizeof common);
  return names + common;
}

// True when it is made for the host or one of its domains.
bool IsFor(X509* certificate, const PostfixConfig& postfix) {
  std::vector<std::string> wanted = Words(postfix.Value("mydestination"));
  wanted.insert(wanted.begin(), postfix.Value("myhostname"));
  return std::any_of(wanted.begin(), wanted.end(), [&](const std::string& name) {
    return X509_check_host(certificate, name.data(), name.size(), 0, nullptr) == 1;
  });
}

void Examine(Certificate& certificate, const PostfixConfig& postfix) {
  const auto unusable = [&](const std::string& why) {
    certificate.usable = false;
    certificate.fault = why;
  };
  const Owned<X509> read = CertificateIn(ReadFile(certificate.file));
  if (!read) return unusable("holds no certificate, so TLS does not work");
  certificate.fingerprint = FingerprintOf(*read);
  certificate.names = NamesOf(*read);
  const std::time_t now = std::time(nullptr);
  constexpr std::time_t kDay = 24L * 60 * 60;
  const std::time_t left = TimeOf(X509_get0_notAfter(read.get())) - now;
  certificate.days = static_cast<long>(left < 0 ? left / kDay - 1 : left / kDay);
  const Owned<EVP_PKEY> key = KeyIn(ReadFile(certificate.key));
  if (!key) return unusable("its key " + certificate.key + " cannot be read, so TLS does not work");
  if (X509_check_private_key(read.get(), key.get()) != 1)
    return unusable("is not the certificate of the key " + certificate.key + ", so TLS does not work");
  if (TimeOf(X509_get0_notBefore(read.get())) > now)
    return unusable("is not valid yet, so mail programs refuse it");
  if (left <= 0) return unusable("has expired, so mail programs refuse it");
  if (certificate.days < kFewDays) {
    certificate.fault = "expires in " + std::to_string(certificate.days) + " days";
  }
  // What the installation makes is signed by itself.
  const bool selfSigned =
      X509_NAME_cmp(X509_get_subject_name(read.get()), X509_get_issuer_name(read.get())) == 0;
  if (certificate.fault.empty() && !selfSigned && !IsFor(read.get(), postfix)) {
    certificate.fault = "is for " + certificate.names + ", and not for " + postfix.Value("myhostname") +
                        " or a mail domain, so mail programs complain";
  }
}

}  // namespace

std::vector<Certificate> Certificates(const PostfixConfig& postfix) {
  std::vector<Certificate> found;
  AddPostfix(found, postfix);
  AddDovecot(found);
  for (Certificate& certificate : found) Examine(certificate, postfix);
  return found;
}

std::string ServedFingerprint(const std::string& place, const std::string& startTls) {
  std::vector<std::string> command = {"openssl", "s_client", "-connect", place};
  if (!startTls.empty()) command.insert(command.end(), {"-starttls", startTls});
  const Owned<X509> shown = CertificateIn(RunProgram(command).output);
  return shown ? FingerprintOf(*shown) : "";
}

std::string PublicKey(const std::string& privateKey) {
  const Owned<EVP_PKEY> key = KeyIn(ReadFile(privateKey));
  unsigned char* bytes = nullptr;
  const int size = key ? i2d_PUBKEY(key.get(), &bytes) : 0;
  const Owned<unsigned char> owner(bytes, [](unsigned char* memory) { OPENSSL_free(memory); });
  std::string text(static_cast<size_t>(std::max(size, 0) + 2) / 3 * 4 + 1, '\0');
  text.resize(static_cast<size_t>(
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes, std::max(size, 0))));
  return text;
}

void CheckPair(const std::string& certificate, const std::string& privateKey) {
  const Owned<X509> read = CertificateIn(ReadFile(certificate));
  if (!read || X509_cmp_current_time(X509_get0_notAfter(read.get())) != 1)
    throw Fault(certificate + " is no valid certificate, or has expired");
  const Owned<EVP_PKEY> key = KeyIn(ReadFile(privateKey));
  if (!key) throw Fault(privateKey + " is no private key without a password");
  if (X509_check_private_key(read.get(), key.get()) != 1)
    throw Fault(privateKey + " is not the key of " + certificate);
}
