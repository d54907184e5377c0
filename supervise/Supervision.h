// The supervision thread.
#pragma once

// The supervision thread's function; the argument is not used. Every 5 s it reads the manual-exit
// flag: when the user has quit the companion, it deletes the flag, asks the main thread to leave
// the event loop, and returns. Every 30 s it calls StartKR if no companion runs. When something
// throws, it returns, and nothing is supervised any more. The process may end while it runs.
void KR_Status(int unused);
