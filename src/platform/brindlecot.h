/// The package's settings library, libbrindlecot: the administrator's settings, and the files that the
/// library itself writes from them. These are declarations of what this program uses; the library defines it.
///
/// Results: 0 or more is success and a negative value a failure, except where a call says otherwise.
/// The library logs its own failures, one line at LOG_ERR each.
///
/// This program makes the settings objects and calls their constructors and destructors, which are the
/// library's. An object is one pointer to data that only the library knows.
#pragma once

#include <boost/any.hpp>
#include <cstdio>
#include <list>
#include <memory>
#include <string>
#include <utility>

/// A setting's value in a settings object; `T` is `bool`, `int` or `std::string`.
template <typename T>
struct Value {
  T value;
};

/// A group of settings, read by key.
class Config {
 public:
  Config(const Config&) = delete;
  Config& operator=(const Config&) = delete;

  /// The value of `key`, a `Value<T>` of the key's type; empty when there is no such key. The reference is
  /// valid until the settings are loaded again.
  boost::any& Get(const std::string& key);

 protected:
  struct Data;

  Config();
  ~Config();

  std::unique_ptr<Data> data_;
};

/// The SMTP server's settings.
class Postfix : public Config {
 public:
  Postfix();
  ~Postfix();

  /// Fills the object from the stored settings. After a failure the object must not be read.
  int LoadSettings();

  /// Further mail domains, in the administrator's order.
  std::list<std::string>& GetAdditionDomain();

  /// DNS blocklists in the administrator's order, each with its DNS zone and its kind: "RBL" for a list of
  /// client addresses, anything else for a list of domain names.
  std::list<std::pair<std::string, std::string>>& GetDNSBLList();
};

/// Content-scanning settings.
class MailScanner : public Config {
 public:
  MailScanner();
  ~MailScanner();

  int LoadSettings();
};

/// IMAP and POP3 settings.
class ImapPop3 : public Config {
 public:
  ImapPop3();
  ~ImapPop3();

  int LoadSettings();
};

/// The local alias table.
class Alias {
 public:
  Alias();
  Alias(const Alias&) = delete;
  Alias& operator=(const Alias&) = delete;
  ~Alias();

  int load();

  /// Writes the loaded aliases to `path`, one a line, in the format of Postfix's aliases(5).
  int ExportAlias(const std::string& path);

 private:
  struct Data;

  std::unique_ptr<Data> data_;
};

/// How many messages each sender may send.
class SenderQuota {
 public:
  /// Writes, installs and compiles the sender quota map that main.cf names.
  static int GenerateConfig();
};

/// Attachments that MailScanner refuses.
class AttachmentFilter {
 public:
  /// Writes and installs MailScanner's filename rules.
  static int GenerateConfig();
};

/// Writes each `Name of field: value` line of `stream` as `Name_of_field=value` to the file at `path`,
/// opened with the `mode` of fopen(3). 0 on success, any other value on failure. `stream` stays open.
int PopenToFile(FILE* stream, const char* path, const char* mode);
