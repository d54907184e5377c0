// The process's standard streams.
#pragma once

// Opens each of standard input, output and error that is closed on /dev/null. Otherwise the next
// file to be opened would get its number, and what is written to standard error, such as libcurl's
// trace, would go into that file.
void openMissingStandardStreams();
