// "vxproxy stats": the statistics the proxy keeps, read from its files without
// changing them. argv[0] is the word "stats"; the options follow it:
//
//   vxproxy stats [--data DIR] [--logs DIR] [--json]
//
// The global counters come from sitecounter.xml in the data folder (default
// "."), the blocked requests per site from siteinfo.log in the log folder
// (default: the data folder), listed by count, highest first. --json prints
// the same as one JSON object.
// Returns the exit code: 0, 1 when a file is missing or unreadable, 2 for bad
// usage.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

int RunStatsCommand(int argc, char** argv);
int RunStats(int argc, char** argv, std::ostream& out, std::ostream& err);

// Records the current time as the statistics start in the data folder's
// sitecounter.xml unless it already holds one. Merged under the counter
// semaphore like the proxy's own stores, so nothing another process wrote
// is lost. Call it before the proxy starts.
void SeedStatStartTime(const std::string& dataFolder);

// "812 B", "12.3 KiB", "4.0 MiB" and so on.
std::string HumanSize(std::uint64_t bytes);
