// The supervision thread.
#pragma once

// The thread's function; the argument is not used. In cycles of 30 passes of one second each it reads the manual-exit
// flag every 5 s, and at the end of each cycle calls StartKR when no companion runs. When the flag says that the user
// quit the companion it deletes the flag file, asks the main thread to leave the event loop and returns. It also
// returns, silently, when anything it calls throws: supervision then ends for the rest of the process's life. Nothing
// else ends it; it may be cut short at any point by the end of the process.
void KR_Status(int unused);
