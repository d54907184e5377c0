// The supervision thread.
#pragma once

// The thread's function; the argument is not used. It runs cycles of 30 passes of one second each.
// Every 5 s it reads the manual-exit flag. At the end of each cycle it calls StartKR when no
// companion runs. When the flag says that the user quit the companion, it deletes the flag, asks
// the main thread to leave the event loop and returns. It also returns, silently, when anything it
// calls throws: nothing is supervised from then on. Nothing else makes it return, but the process
// may end at any moment while it runs.
void KR_Status(int unused);
