// How many objects the system layer has handed out and not got back.
#pragma once

// Returns the number of CoreFoundation and IOKit objects that have been created and not been released. Constant strings
// do not count. A caller that releases what it obtains leaves the number as it was.
long liveSystemObjects();
