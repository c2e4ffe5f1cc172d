/// The timer that takes a change back.
#pragma once

/// Starts it for the pending change. It outlives the session, and is started again when it dies. Throws
/// Fault.
void StartTimer();
