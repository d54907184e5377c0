// Start-up's check that the launcher is not outdated.
#pragma once

// Ends the launcher with wxExit when the service's version of it is newer than the version marker;
// otherwise has no effect. From OnInit, where no event loop runs, wxExit does not return: the
// process ends with status 255. Inside a running loop this returns, and the loop ends later. Main
// thread only, and before the supervision thread is created: it joins the threads in g_threads, and
// the supervision thread may never end.
void CheckLauncher();
