/// The generator of the mail server's configuration files, and the functions that its operations share.
///
/// How a generated file reaches its place:
///
///     char temp[] = "TARGETXXXXXX";     in the target's directory, so that the rename is atomic
///     OpenFromTemplate or OpenEmpty     creates the file owner-only and opens a stream on it
///     stream << "line" << EndLine       flushes each line; a setting is read when its line is written
///     CloseOrRemove                     closes the file; removes a file that was not written whole
///     ApplyCustomization                merges the administrator's keys, for three of the files
///     InstallFile                       sets mode 0644, syncs the file, renames it over the target
///     CompileMap                        for a lookup table, compiles the installed target
///
/// A daemon that reads the target sees the old file or the new one, never a part of it, even after a power
/// cut. When a write fails, the temporary file is removed, the target stays as it was, one line is logged,
/// and the run goes on with the next file. When a template is missing, the file is made without the
/// template's part. When a temporary file cannot be opened, its lines are lost; the files of src/alias are
/// not installed then, and one line is logged. When chmod or rename fails, the temporary file stays, except
/// those of ldap-aliases.cf, domain-aliases.cf and domain-aliases (FileRemover).
///
/// Operations return 0 for success and a negative value for failure. Generate... writes and installs a file.
/// Write... appends lines to a stream that its caller holds open; except for WriteRelayHost the result is 0.
#pragma once

#include <fstream>
#include <list>
#include <string>

#include "platform/brindlecot.h"

/// Every log line of this program begins with this name and a number, as "%s:%d". Programs that watch the log
/// know a message by the two. So a number never changes, even when its code moves to another line.
inline constexpr const char* kLogSource = "config_generator";

// ---- Typed settings reads -------------------------------------------------------------------------

/// The value of `key`, without conversion: when the settings have no value or one of another type, logs a
/// line with the key and the expected type, and throws boost::bad_any_cast.
bool GetBool(Config& settings, const char* key);
int GetInt(Config& settings, const char* key);
std::string GetString(Config& settings, const char* key);

// ---- Text -----------------------------------------------------------------------------------------

/// The items with `separator` between them, but not before the first or after the last.
std::string JoinList(const std::list<std::string>& items, const char* separator);

/// "yes" or "no".
const char* YesNo(bool value);

// ---- File installation ----------------------------------------------------------------------------

/// Creates an empty owner-only file and replaces the six X at the end of `path` by the suffix of its name
/// (mkstemp(3)). 0, or -1. Logs nothing.
int MakeTempFile(char* path);

/// The result of a copy that stopped half-way. The destination holds a part of the source.
inline constexpr int kPartialCopy = -2;

/// Copies `source` to `destination` byte for byte. A destination that exists keeps its mode; otherwise
/// it is created with mode 0644. 0; or, with one log line, -1 when a file cannot be opened or the source
/// cannot be read at all, and kPartialCopy when only a part was copied. A pipe counts as a source that cannot
/// be opened.
int CopyFile(const char* source, const char* destination);

/// Appends the bytes of `source` to `destination`. As CopyFile, but a read error counts as the end of the
/// source.
int AppendFile(const char* source, const char* destination);

/// Creates a temporary file (MakeTempFile), copies the template into it, and opens `stream` to append to it.
/// When the file cannot be opened, text written to the stream is dropped. When the template could not be
/// copied whole, CloseOrRemove returns -1.
void OpenFromTemplate(std::ofstream& stream, char* temp, const char* templatePath);

/// Creates a temporary file (MakeTempFile) and opens `stream` on it. When the file cannot be opened, text
/// written to the stream is dropped.
void OpenEmpty(std::ofstream& stream, char* temp);

/// As MakeTempFile, but logs a failure (LogWriteError).
int MakeTempFileOrLog(char* path);

/// Opens `stream` on the file at `path`. 0, or -1 with one log line.
int OpenOrLog(std::ofstream& stream, const char* path);

/// Ends a line and flushes it, as std::endl does. Stores the errno of the stream's first failed write, for
/// CloseOrRemove.
std::ostream& EndLine(std::ostream& stream);

/// Closes the stream if it is open; a failure sets its failbit.
void CloseStream(std::ofstream& stream);

/// Closes the stream on the file at `path`. When some of the text did not get into the file, logs one line,
/// removes the file and returns -1. Otherwise 0, also for a stream that could not be opened.
int CloseOrRemove(std::ofstream& stream, const char* path);

/// Logs that the file at `path` could not be written, with the reason in errno. Returns -1.
int LogWriteError(const char* path);

/// Syncs the temporary file to the disk, so that a power cut after the rename leaves a target with all of its
/// bytes. 0; or -1 after one log line and the removal of the file.
int SyncOrRemove(const char* temp);

/// Sets the temporary file's mode to 0644, syncs it (SyncOrRemove) and renames it to the target. 0; or -1
/// with one log line. The target is then unchanged; when chmod or rename failed, the temporary file stays.
int InstallFile(const char* temp, const char* target);

/// Runs Postfix's `program` (postmap or postalias) on the table at `path`. Returns the result of ZELBCExec.
int CompileMap(const char* program, const char* path);

// ---- The generator --------------------------------------------------------------------------------

/// A run has one of these. It owns the administrator's settings and the streams that several operations
/// write to, and has an operation for each generated file.
class ConfigGenerator {
 public:
  /// Loads the SMTP, scanner and IMAP/POP3 settings in this order and stops at the first failure. 0, or -1;
  /// the settings library logs why. The other operations are for a generator whose settings are loaded.
  int LoadAllSettings();

  // smtp/

  /// main.cf and the files that it refers to. Returns the result of installing main.cf.
  int GenerateMainCf();
  /// The relay host's lines of main.cf, and its compiled password map. -1 when postmap failed.
  int WriteRelayHost();
  /// The milter lines of main.cf, and the files of each milter that is switched on.
  int WriteMilters();
  /// OpenDKIM's configuration and its three tables, owner-only. Stops with -1 when one cannot be installed.
  int GenerateDkimConfig();
  /// OpenDMARC's configuration, owner-only. -1 when it cannot be installed.
  int GenerateDmarcConfig();
  /// The alias_maps line of main.cf, and the directory's map for the account source.
  int WriteAliasMaps();
  /// The restriction lines of main.cf.
  int WriteSenderRestrictions();
  int WriteRecipientRestrictions();
  int WriteHeloRestrictions();
  /// The header checks table. Returns the result of compiling it.
  int GenerateHeaderChecks();
  /// master.cf. Returns the result of its installation.
  int GenerateMasterCf();
  /// Gives the package helper the PAM ids of the account source. -1 when the helper fails.
  int UpdatePamConfig();

  // imap/

  /// 10-mail.conf, then 10-master.conf. Returns the result of installing 10-master.conf.
  int GenerateDovecotConfig();
  /// 10-mail.conf. Returns the result of its installation.
  int GenerateDovecotMailConfig();

  // scan/

  /// local.cf, then MailScanner.conf. Returns the result of installing MailScanner.conf.
  int GenerateMailScannerConfig();
  /// The message-content lines of MailScanner.conf.
  int WriteContentRules();
  /// SpamAssassin's local.cf. Returns the result of its installation.
  int GenerateSpamAssassinConfig();

  // alias/

  /// The local alias table. -1 when the library cannot write it; otherwise the result of compiling it.
  static int GenerateAliases();
  /// The LDAP table of a directory's aliases. -1 when a value is missing or the file cannot be written.
  static int GenerateLdapAliasMap();
  /// The LDAP table of a Windows domain's users. -1 when a value is missing or the file cannot be written.
  static int GenerateDomainLdapAliasMap();
  /// The alias table of a Windows domain's users, compiled. Does nothing, with 0, for other account types.
  int GenerateDomainAliases();
  /// The client file of the sender quota cache. Returns the result of its installation.
  static int GenerateQuotaMemcacheMap();

  // core/

  /// Merges the keys of a customisation file, if there is one, into a generated file. 0, or -1.
  static int ApplyCustomization(const char* generated, const char* customization);

 private:
  // Destroyed in reverse order: a stream that is still open is closed before the settings are destroyed.
  Postfix smtp;
  MailScanner scanner;
  ImapPop3 imapPop3;
  std::ofstream mainCf;
  std::ofstream masterCf;
  std::ofstream mailScannerConf;
  std::ofstream dovecotMasterConf;
};
