// Where the host program keeps its files when no option names a folder, where
// it finds the files it ships with, and the small file chores its commands
// share. Paths here are native ("/"-separated).
#pragma once

#include <string>

namespace vxhost {

// The default folders, after the XDG base directories:
//   data   $XDG_DATA_HOME/vxproxy   (~/.local/share/vxproxy)
//   logs   $XDG_STATE_HOME/vxproxy  (~/.local/state/vxproxy)
//   config $XDG_CONFIG_HOME         (~/.config)
// A variable that is unset, empty or not an absolute path is ignored, as the
// XDG rules ask. Empty when neither the variable nor HOME gives a folder.
std::string DefaultDataFolder();
std::string DefaultLogFolder();
std::string UserConfigFolder();

// Absolute path of the running program; empty when the system cannot tell.
std::string ProgramPath();

// A file the program ships with: <program dir>/../share/vxproxy/NAME in an
// installed tree, else the source tree's data/SOURCE_NAME. Empty when
// neither exists; tried then names the places looked at ("A and B").
std::string FindShippedFile(const std::string& name, const std::string& sourceName,
                            std::string* tried);

// The text of a file the program ships with (see FindShippedFile) with every
// "@KEY@" replaced by value. False when it is missing; problem then names
// the places looked at.
bool LoadShippedTemplate(const std::string& name, const std::string& sourceName,
                         const std::string& key, const std::string& value, std::string* text,
                         std::string* problem);

// Makes the folder and its parents and checks that files can be made in it.
// On failure problem says what is wrong ("is a file", "Permission denied").
bool PrepareFolder(const std::string& folder, std::string* problem);

// The whole file. False with a reason when it cannot be read; a missing file
// is an error only when required.
bool ReadWholeFile(const std::string& path, bool required, std::string* text, std::string* problem);

// Whether the file is there (present) and, when it is, whether it can be
// opened for reading (for appending with forWriting). False with a reason
// when it is there but cannot be.
bool ProbeFile(const std::string& path, bool* present, std::string* problem,
               bool forWriting = false);

// The file NAME in the folder, as a path to show: one "/" between them.
std::string FileIn(const std::string& folder, const std::string& name);

// Replaces the file's contents in one step: the text goes to a temporary file
// beside it, which is then renamed over it, so a reader sees the old or the
// new contents, never a mix.
bool WriteFileAtomically(const std::string& path, const std::string& text, std::string* problem);

// The path made absolute against the current folder (the text as it is when
// that fails).
std::string AbsolutePath(const std::string& path);

}  // namespace vxhost
