#include "mail/certificate.h"

#include <algorithm>
#include <ctime>
#include <regex>

#include "mail/dovecot_config.h"
#include "system/files.h"
#include "system/program.h"
#include "system/text.h"

namespace {

void Add(std::vector<Certificate>& found, const std::string& reader, const std::string& file,
         const std::string& key) {
  if (file.empty() || file == "none") return;
  for (Certificate& known : found) {
    if (known.file != file || known.key != key) continue;
    if (!Contains(known.readers, reader)) known.readers += ", " + reader;
    return;
  }
  Certificate fresh;
  fresh.file = file;
  fresh.key = key;
  fresh.readers = reader;
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
    if (Contains(text, "-----BEGIN CERTIFICATE")) Add(found, "Postfix", file, key);
  }
  if (key.empty()) {
    for (const std::string kind : {"", "ec", "d"}) {
      Add(found, "Postfix", postfix.Value("smtpd_tls_" + kind + "cert_file"),
          postfix.Value("smtpd_tls_" + kind + "key_file"));
    }
  }
  for (const PostfixService& service : postfix.services) {
    const auto own = service.options.find("smtpd_tls_cert_file");
    if (own != service.options.end())
      Add(found, "Postfix", own->second, postfix.Value(service, "smtpd_tls_key_file"));
  }
}

void AddDovecot(std::vector<Certificate>& found) {
  try {
    for (const auto& [file, key] : DovecotCertificates(ReadDovecot())) Add(found, "Dovecot", file, key);
  } catch (const Fault&) {  // its checker says why
  }
}

// Seconds from the epoch of "NAME=2026-11-25 16:47:50Z" in the text.
std::time_t TimeAfter(const std::string& text, const std::string& name) {
  const size_t at = text.find(name + "=");
  std::tm time = {};
  if (at != std::string::npos) strptime(text.c_str() + at + name.size() + 1, "%Y-%m-%d %H:%M:%S", &time);
  return timegm(&time);
}

bool IsFor(const Certificate& certificate, const PostfixConfig& postfix) {
  std::vector<std::string> wanted = Words(postfix.Value("mydestination"));
  wanted.insert(wanted.begin(), postfix.Value("myhostname"));
  return std::any_of(wanted.begin(), wanted.end(), [&](const std::string& name) {
    return Contains(
        RunProgram({"openssl", "x509", "-in", certificate.file, "-noout", "-checkhost", name}).output,
        "does match");
  });
}

void Examine(Certificate& certificate, const PostfixConfig& postfix) {
  const auto unusable = [&](const std::string& why) {
    certificate.usable = false;
    certificate.fault = why;
  };
  const std::string& file = certificate.file;
  const ProgramResult read =
      RunProgram({"openssl", "x509", "-in", file, "-noout", "-startdate", "-enddate", "-dateopt", "iso_8601",
                  "-subject", "-issuer", "-ext", "subjectAltName", "-fingerprint", "-sha256", "-pubkey"});
  const std::string& text = read.output;
  if (read.status != 0) return unusable("holds no certificate, so TLS does not work");
  std::smatch match;
  if (std::regex_search(text, match, std::regex("ingerprint=(.*)"))) certificate.fingerprint = match[1];
  const std::regex name("DNS:([^,\n]*)");
  for (std::sregex_iterator one(text.begin(), text.end(), name), end; one != end; ++one) {
    certificate.names += (certificate.names.empty() ? "" : " ") + (*one)[1].str();
  }
  if (certificate.names.empty() && std::regex_search(text, match, std::regex("subject=.*CN ?= ?([^,\n]*)"))) {
    certificate.names = match[1];  // of old certificates
  }
  const std::time_t now = std::time(nullptr);
  constexpr std::time_t kDay = 24L * 60 * 60;
  const std::time_t left = TimeAfter(text, "notAfter") - now;
  certificate.days = static_cast<long>(left < 0 ? left / kDay - 1 : left / kDay);
  const ProgramResult key =
      RunProgram({"openssl", "pkey", "-in", certificate.key, "-passin", "pass:", "-pubout"});
  if (key.status != 0)
    return unusable("its key " + certificate.key + " cannot be read, so TLS does not work");
  if (!Contains(text, key.output)) {
    return unusable("is not the certificate of the key " + certificate.key + ", so TLS does not work");
  }
  if (TimeAfter(text, "notBefore") > now) return unusable("is not valid yet, so mail programs refuse it");
  if (left <= 0) return unusable("has expired, so mail programs refuse it");
  if (certificate.days < kFewDays) {
    certificate.fault = "expires in " + std::to_string(certificate.days) + " days";
  }
  // What the installation makes is signed by itself.
  const bool selfSigned = std::regex_search(text, std::regex("subject=([^\n]*)\nissuer=\\1\n"));
  if (certificate.fault.empty() && !selfSigned && !IsFor(certificate, postfix)) {
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
  std::vector<std::string> command = {"timeout", "5", "openssl", "s_client", "-connect", place};
  if (!startTls.empty()) command.insert(command.end(), {"-starttls", startTls});
  const std::string said =
      RunProgram({"openssl", "x509", "-noout", "-fingerprint", "-sha256"}, RunProgram(command).output).output;
  const size_t sign = said.find('=');
  return sign == std::string::npos ? "" : Lines(said.substr(sign + 1))[0];
}

std::string PublicKey(const std::string& privateKey) {
  std::string key;
  for (const std::string& line :
       Lines(RunProgram({"openssl", "pkey", "-in", privateKey, "-pubout"}).output)) {
    if (line[0] != '-') key += line;
  }
  return key;
}
