/// The lock of the states (state.h): one change at a time.
#pragma once

#include <chrono>

#include "change/state.h"

/// Lock file, held while we run nubo_set_config.
inline const std::string kRunLock = kStates + "/run.lock";

/// Makes the directory of the states if it is missing, and locks it until the program ends. Also waits for a
/// nubo_set_config that a killed change has left running, and removes trees that are not complete. With
/// `settled` it waits, too, until no change is pending. Throws Fault when it has to wait longer than
/// `patience`, with the process that has the lock, its command, and since when.
void LockStates(std::chrono::seconds patience, bool settled);
