// Start-up's check that the launcher is not outdated.
#pragma once

// Ends the launcher with wxExit if the service has a newer one. In OnInit, where no event loop
// runs, wxExit does not return, and the status is 255; inside a loop it does, and the loop ends
// later. Main thread only, and before the supervision thread exists: it would wait for that for
// ever.
void CheckLauncher();
