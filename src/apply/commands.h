/// The commands of nubo_config_apply.
///
/// Each returns the exit status of the program: 0 the change is in force, 1 nothing was touched, 3 it was
/// tried and taken back, 4 not everything could be put back. They throw only before anything was touched.
#pragma once

#include <string>
#include <vector>

/// A command line, without the word of the command.
struct Request {
  std::vector<std::string> arguments;
  double minutes = 0;   ///< within which the change has to be confirmed; 0: it need not be
  std::string message;  ///< why it is made; may be empty
  std::string user;     ///< who makes it
};

/// Runs the command that the words of a command line begin with, with the options of the request. Takes the
/// lock of the states (state.h) for those that change something. Prints the usage and returns 2 when the
/// command line is wrong.
int RunCommandLine(const std::vector<std::string>& words, Request request);

/// Prints the usage: to standard output, where it was asked for, and returns 0; else to standard error,
/// and 2.
int Usage(bool asked = false);

/// Runs nubo_set_config with the word of the arguments, or with all, and has the daemons follow.
int Apply(const Request& request);

/// The same with the settings of an earlier state; without a number, of the one before the last. A state as
/// found has no settings: its files are put back as they were.
int Undo(const Request& request);

/// Puts a certificate and its private key (PEM files) in place, both at once, and has the daemons follow.
int Renew(const Request& request);

/// Makes the pending change a state.
int Confirm(const Request& request);

/// Takes back a pending change that was not confirmed, after a power cut or a kill.
int Recover(const Request& request);

/// Restarts the daemons that run, in their order.
int Restart(const Request& request);

/// Waits until the pending change is confirmed or gone; when its time is over, takes it back. Takes the lock
/// itself.
int Wait(const Request& request);

/// Shows how mail is, and which files differ from the last confirmed state; for programs with "--json", and
/// without a message to postmaster with "--no-message". 0 when all is as confirmed, 1 when mail does not
/// work, 5 when files differ or a change is pending.
int Check(const Request& request);

/// Lists the states, for programs with "--json"; with a number, shows what made that state; with two, each
/// change that lies between them.
int History(const Request& request);

/// Prints the DNS records of the mail domains, for a zone file. With "check", asks DNS for each: 0 when all
/// are good, else 1.
int Dns(const Request& request);
