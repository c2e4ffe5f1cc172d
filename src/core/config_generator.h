/// The generator of the mail server's configuration files, and what all of its operations share.
///
/// How a generated file reaches its place:
///
///     char temp[] = "TARGETXXXXXX";         in the target's directory, so that the rename is atomic
///     OpenFromTemplate or OpenEmpty         creates it owner-only and opens a stream on it
///     stream << "line" << EndLine           each line flushed, each setting read as its line is written
///     WrittenWhole                          closes it; a file that was not written whole ends here
///     ApplyCustomization                    the administrator's own keys, where the file has such a file
///     InstallFile                           mode 0644, on the disk, then one rename over the target
///     CompileMap                            for a lookup table, on the installed target
///
/// A daemon that reads the target sees the old file or the new one, never a part of it, also after a power
/// cut. A write that fails ends that file alone: one log line, the temporary file removed, the target as it
/// was. What cannot be opened stops nothing: a missing template gives a file without the template's part, a
/// stream that is not open drops its lines. After a chmod or a rename that failed the temporary file stays,
/// except in the tables that can hold secrets (RemovedAtEnd).
///
/// Operations return 0 for success and a negative value for failure. They are named after what they do:
/// Generate... writes and installs a file, Write... appends lines to a stream that its caller holds open.
#pragma once

#include <fstream>
#include <list>
#include <string>

#include "platform/brindlecot.h"

/// Every log line of this program begins with this name and a number, as "%s:%d". The two together
/// identify the message to those who watch the log: a number never changes, wherever its line stands.
inline constexpr const char* kLogSource = "config_generator";

// ---- Typed settings reads -------------------------------------------------------------------------

/// The value of `key`, which must be held as the type that is read: there is no conversion. Otherwise
/// one line is logged that names the key and the type, and boost::bad_any_cast leaves the read.
bool GetBool(Config& settings, const char* key);
int GetInt(Config& settings, const char* key);
std::string GetString(Config& settings, const char* key);

// ---- Text -----------------------------------------------------------------------------------------

/// The items with `separator` between them, and only there.
std::string JoinList(const std::list<std::string>& items, const char* separator);

/// "yes" or "no".
const char* YesNo(bool value);

// ---- File installation ----------------------------------------------------------------------------

/// Creates an empty file, owner-only, and replaces the six X at the end of `path` by its suffix
/// (mkstemp(3)). 0, or -1. Logs nothing.
int MakeTempFile(char* path);

/// The result of a copy whose destination could not be written whole: it holds a part.
inline constexpr int kNotWhole = -2;

/// Copies `source` to `destination` byte for byte. A destination that exists keeps its mode; otherwise
/// it is created with 0644. 0; or, with one log line, -1 when a file cannot be opened or the source not be
/// read, kNotWhole when a write failed. A source that is a pipe counts as one that cannot be opened.
int CopyFile(const char* source, const char* destination);

/// Appends the bytes of `source` to `destination`. As CopyFile, but a read error is taken for the end.
int AppendFile(const char* source, const char* destination);

/// Creates a temporary file (MakeTempFile), copies the template into it and opens `stream` behind it.
/// What cannot be opened here is silent later: a failed stream drops what is written to it. A template that
/// could not be copied whole shows in WrittenWhole.
void OpenFromTemplate(std::ofstream& stream, char* temp, const char* templatePath);

/// Creates a temporary file (MakeTempFile) and opens `stream` on it.
void OpenEmpty(std::ofstream& stream, char* temp);

/// Ends a line and flushes it, as std::endl does. The stream keeps the reason of its first write that fails,
/// for WrittenWhole.
std::ostream& EndLine(std::ostream& stream);

/// Closes the stream if it is open; a failure sets its failbit.
void CloseStream(std::ofstream& stream);

/// Closes the stream on the file at `path`. False when not all that was written to it is there: then one
/// line is logged and the file removed. True also for a stream that could not be opened.
bool WrittenWhole(std::ofstream& stream, const char* path);

/// `done`; when it is false, logs that the file at `path` could not be written, with the reason in errno.
bool Written(bool done, const char* path);

/// Puts the temporary file on the disk, so that a rename cannot come there before the file's bytes do. False
/// when that fails: then one line is logged and the file removed.
bool OnDisk(const char* temp);

/// Gives the temporary file mode 0644, puts it on the disk and moves it over the target. 0, or -1 with one
/// log line, the target as it was, and the temporary file still there if it is whole.
int InstallFile(const char* temp, const char* target);

/// Runs Postfix's `program` (postmap or postalias) on the table at `path`. Returns what ZELBCExec does.
int CompileMap(const char* program, const char* path);

// ---- The generator --------------------------------------------------------------------------------

/// The one object of a run: the administrator's settings, the streams that several operations share,
/// and an operation for each generated file.
class ConfigGenerator {
 public:
  ConfigGenerator() = default;
  ConfigGenerator(const ConfigGenerator&) = delete;
  ConfigGenerator& operator=(const ConfigGenerator&) = delete;

  /// Closes the streams before the settings objects go.
  ~ConfigGenerator();

  /// Loads the SMTP, scanner and IMAP/POP3 settings, in this order, up to the first that fails. 0, or
  /// -1; the settings library logs why. No other operation is to be run before it has succeeded.
  int LoadAllSettings();

  // smtp/

  /// main.cf, with all that belongs to it. Returns the result of its installation.
  int GenerateMainCf();
  /// The relay host's lines of main.cf, and the password map for it, compiled. -1 when postmap failed.
  int WriteRelayHost();
  /// The milter lines of main.cf, and the files of each milter that is on. Always 0.
  int WriteMilters();
  /// OpenDKIM's configuration and its three tables, owner-only. -1 at the first that is not installed.
  int GenerateDkimConfig();
  /// OpenDMARC's configuration, owner-only. -1 when it is not installed.
  int GenerateDmarcConfig();
  /// The alias_maps line of main.cf, and the directory's map for the account source. Always 0.
  int WriteAliasMaps();
  /// The restriction lines of main.cf. Always 0.
  int WriteSenderRestrictions();
  int WriteRecipientRestrictions();
  int WriteHeloRestrictions();
  /// The header checks table. Returns the result of compiling it.
  int GenerateHeaderChecks();
  /// master.cf. Returns the result of its installation.
  int GenerateMasterCf();
  /// Tells the package helper the PAM ids of the account source. -1 when the helper reports failure.
  int UpdatePamConfig();

  // imap/

  /// 10-mail.conf, then 10-master.conf. Returns the result of installing 10-master.conf.
  int GenerateDovecotConfig();
  /// 10-mail.conf. Returns the result of its installation.
  int GenerateDovecotMailConfig();

  // scan/

  /// local.cf, then MailScanner.conf. Returns the result of installing MailScanner.conf.
  int GenerateMailScannerConfig();
  /// The message-content lines of MailScanner.conf. Always 0.
  int WriteContentRules();
  /// SpamAssassin's local.cf. Returns the result of its installation.
  int GenerateSpamAssassinConfig();

  // alias/

  /// The local alias table. -1 when it cannot be had; else the result of compiling it, as it is.
  static int GenerateAliases();
  /// The LDAP table of a directory's aliases. -1 when a value cannot be had or the file not written.
  static int GenerateLdapAliasMap();
  /// The LDAP table of a Windows domain's users. -1 when a value cannot be had or the file not written.
  static int GenerateDomainLdapAliasMap();
  /// The alias table of a Windows domain's users, compiled. 0 as well when accounts are no domain's.
  int GenerateDomainAliases();
  /// The client file of the sender quota cache. Returns the result of its installation.
  static int GenerateQuotaMemcacheMap();

  // core/

  /// Merges the keys of a customisation file into a generated one, if there is such a file. 0, or -1.
  static int ApplyCustomization(const char* generated, const char* customization);

 private:
  Postfix smtp;
  MailScanner scanner;
  ImapPop3 imapPop3;
  std::ofstream mainCf;
  std::ofstream masterCf;
  std::ofstream mailScannerConf;
  std::ofstream dovecotMasterConf;
};
