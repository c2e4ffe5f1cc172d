/// A change of the mail system as a whole: it is made and checked, then confirmed or taken back.
///
/// Each function returns the exit status of the program: 0 the change is in force, 1 nothing was touched, 3
/// it was tried and taken back, 4 not everything could be put back. The caller holds the lock, except for
/// Wait. They throw only before anything was touched.
#pragma once

#include <string>
#include <vector>

/// From here on the program goes on when its terminal is closed; SIGINT and SIGTERM have a change taken back.
void OutliveSession();

/// Runs nubo_set_config with the words and has the daemons follow. With `minutes` greater than 0 the change
/// waits that long to be confirmed.
int Apply(const std::vector<std::string>& words, int minutes);

/// The same with the settings of an earlier state; 0 is the one before the last. A state as found has no
/// settings: its files are put back as they were.
int Undo(int state, int minutes);

/// Makes the pending change a state.
int Confirm();

/// Takes back a pending change that was not confirmed, after a power cut or a kill.
int Recover();

/// Waits until the pending change is confirmed or gone; when its time is over, takes it back. Takes the lock
/// itself.
int Wait();

/// Shows how mail is, and which files differ from the last confirmed state. 0 when mail is well, else 1.
int Check();

/// Lists the states; with a number greater than 0, shows what made that state. 0, or 1 when there is none.
int History(int state);

/// Puts a certificate and its private key (PEM files) in place, both at once, and has the daemons follow.
int Renew(const std::string& certificate, const std::string& key);

/// Prints the DNS records of the mail domains, for a zone file. 0, or 1 when there is no host name or no key.
int Dns();
