// "vxproxy lists": downloads the filter lists and joins them into the one
// filters.txt the proxy reads. argv[0] is the word "lists"; a subcommand
// and its options follow:
//
//   vxproxy lists update [--filters DIR] [--data DIR] [--timeout SECONDS] [URL...]
//   vxproxy lists status [--filters DIR] [--data DIR] [--logs DIR]
//
// The folder is --filters, else --data, else $XDG_DATA_HOME/vxproxy
// (~/.local/share/vxproxy when that is not set). Without URLs "update"
// fetches EasyList's files from its repository, in the order of the
// published list.
//
// Beside filters.txt the command keeps lists/ (the last good copy of every
// list, named after its URL) and lists.ini (per list: URL, ETag,
// Last-Modified and when it was downloaded, last changed and last checked).
// An update asks with If-None-Match / If-Modified-Since, so a list that has
// not changed is answered with 304 and not sent again.
//
// "status" shows filters.txt (size, rules, version), each list's URL, times
// and validators, and the running proxy's last load of the lists as its
// proxy.log tells (--logs, else beside filters.txt, else the default log
// folder).
//
// filters.txt is written in the joined form the filter loader reads: one
// "! Version:" line and a "! *** easylist:<folder>/<file> ***" line before
// each list (the loader finds the ad-server section by these lines), each
// list without its own header lines. It is replaced by rename, and only
// when every list arrived whole; it is left untouched when nothing in it
// changed.
//
// Returns the exit code: 0, 1 when a download or a file failed (or, for
// "status", when there is no filters.txt), 2 for bad usage.
#pragma once

int RunListsCommand(int argc, char** argv);
