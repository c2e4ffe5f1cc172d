/// The commands of nubo_config_apply.
///
/// Each returns the exit status of the program: 0 the change is in force, 1 nothing was touched, 3 it was
/// tried and taken back, 4 not everything could be put back. They throw only before anything was touched.
/// Those that change something need the lock of the states (state.h).
#pragma once

#include <string>
#include <vector>

/// Runs nubo_set_config with the words and has the daemons follow. With `minutes` greater than 0 the change
/// waits that long to be confirmed.
int Apply(const std::vector<std::string>& words, double minutes);

/// The same with the settings of an earlier state; 0 is the one before the last. A state as found has no
/// settings: its files are put back as they were.
int Undo(int state, double minutes);

/// Puts a certificate and its private key (PEM files) in place, both at once, and has the daemons follow.
int Renew(const std::string& certificate, const std::string& key);

/// Makes the pending change a state.
int Confirm();

/// Takes back a pending change that was not confirmed, after a power cut or a kill.
int Recover();

/// Waits until the pending change is confirmed or gone; when its time is over, takes it back. Takes the lock
/// itself.
int Wait();

/// Shows how mail is, and which files differ from the last confirmed state. 0 when mail is well, else 1.
int Check();

/// Lists the states; with a number greater than 0, shows what made that state.
int History(int state);

/// Prints the DNS records of the mail domains, for a zone file.
int Dns();
