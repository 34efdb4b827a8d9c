// Type words: the short lower-case words (gif, htm, js, css, xml, flv, or an
// unmapped extension or subtype) that decide whether a request is judged,
// which replacement body a blocked one gets and with which media type.
//
// The two tables belong to the service object; these functions only read
// them (lookups never insert), so worker threads may call them at once.
#pragma once

#include <map>
#include <string>

#include "vxproxy/stringbuffer.h"

// Type word -> MIME type of the replacement sent for it.
void FillMimeTable(std::map<std::string, std::string>& mimeTable);
// MIME subtype or file extension -> type word. Inserts only absent keys, so
// filling a filled table changes nothing.
void FillTypeWordTable(std::map<std::string, std::string>& typeWordTable);

// Replaces the word by its table value; a word starting with "x-" (any case)
// is looked up without that prefix and loses it when that finds nothing.
void NormalizeTypeWord(const std::map<std::string, std::string>& typeWordTable,
                       CStringBuffer& word);

bool IsImageWord(const CStringBuffer& word);
bool IsFlashWord(const CStringBuffer& word);
bool IsPageWord(const CStringBuffer& word);
// True for the kinds that have a harmless replacement body.
bool IsReplaceableType(const CStringBuffer& word);

// The MIME type for a word; words without one get the "unknown" type.
const char* GetMimeType(const std::map<std::string, std::string>& mimeTable, const char* word);

// The type word of a request path (without query): the text after the last
// "." of the last path segment, normalised; "unknown" without such a ".".
void TypeWordOfPath(const std::map<std::string, std::string>& typeWordTable, const char* path,
                    CStringBuffer& out);
