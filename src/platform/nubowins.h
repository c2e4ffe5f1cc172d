/// The appliance's Windows-domain library, libnubowins. These are declarations of what this program uses; the
/// library defines it.
#pragma once

extern "C" {

/// Non-zero when the appliance is joined to an Active Directory domain, 0 otherwise.
int NUBOWinsADSJoined();

/// Copies the domain, name and password of the account with which the appliance authenticates to its
/// domain into three buffers of the given sizes, NUL-terminated. Negative when one of them is missing
/// or does not fit.
int NUBOWinsGetAuthUser(char* domain, int domainSize, char* user, int userSize, char* password,
                        int passwordSize);

}  // extern "C"
