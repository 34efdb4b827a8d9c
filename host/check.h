// "vxproxy check": the filter engine's verdict for a URL, without starting
// the proxy. argv[0] is the word "check"; the options follow it:
//
//   vxproxy check [--filters FILE] [--approved FILE] [--type WORD]
//                 [--referer URL] [--redirect] URL
//   vxproxy check --filters FILE [--approved FILE] --batch
//   vxproxy check [--filters FILE] [--approved FILE] --connect HOST[:PORT]
//
// The single form prints one verdict code (100, 200, 300, 400 or 500). The
// batch form reads tab-separated lines from stdin (url, type word or empty,
// referer or empty, optional redirect flag 0/1) and prints one verdict per
// line, in order. Without --type the type word comes from the URL's path as
// the proxy derives it ("unknown" when there is none). The --connect form
// prints the tunnel guard's answer for a CONNECT to the host: "block HOST
// (RULE)" or "pass HOST (REASON)".
// Returns the exit code: 0, 1 when a list cannot be loaded, 2 for bad usage.
#pragma once

int RunCheckCommand(int argc, char** argv);
