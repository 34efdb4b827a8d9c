// The XML document store of the utility library. The settings document and
// the counter files are documents held in memory and stored in files; the
// host reaches the settings document through the virtual operations below,
// so their order is part of the host interface and must not change.
//
// Paths name elements by their names separated by "/", relative to the root
// element ("Global/History") or, when they start with "./" or an element is
// passed with them, relative to that element. ".." steps to the parent; a
// leading "/" starts at the document itself, so its first name is the root's.
#pragma once

#include <cstdint>
#include <vector>

#include "vxproxy/stringbuffer.h"
#include "vxproxy/types.h"

// A handle of one element (or text node) inside a document: four opaque
// words. A handle whose first three words are zero stands for "not found".
// It stays valid until its document is parsed again, replaced or destroyed;
// a stale handle, or one from another document, is treated as not found.
class VX_EXPORT CVxXMLElement {
 public:
  CVxXMLElement() : words_{0, 0, 0, 0} {}
  bool IsFound() const { return (words_[0] | words_[1] | words_[2]) != 0; }
  bool operator==(const CVxXMLElement& other) const {
    return words_[0] == other.words_[0] && words_[1] == other.words_[1] &&
           words_[2] == other.words_[2] && words_[3] == other.words_[3];
  }

 private:
  friend struct VxXMLAccess;
  std::uint32_t words_[4];
};

// The elements of GetAllChildNodes(const char*): a heap object whose first
// two fields delimit a contiguous array. Hand it back to FreeWrapper.
class VX_EXPORT CVectorWrapper {
 public:
  CVxXMLElement* begin() const { return first_; }
  CVxXMLElement* end() const { return last_; }
  int GetCount() const { return static_cast<int>(last_ - first_); }

 private:
  friend struct VxXMLAccess;
  explicit CVectorWrapper(std::vector<CVxXMLElement>&& items);
  CVxXMLElement* first_;
  CVxXMLElement* last_;
  std::vector<CVxXMLElement> items_;
};

struct VxXMLDocument;

// The document class.
class VX_EXPORT CVxXML {
 public:
  CVxXML();
  // Copies are deep: each object owns its own document.
  CVxXML(const CVxXML& other);
  CVxXML& operator=(const CVxXML& other);

  virtual ~CVxXML();                                                            // 0
  // 0 when the file was read and parsed; non-zero when it is missing,
  // unreadable or not a document (the object is then empty). The name is
  // remembered either way, for Store().
  virtual int ParseFile(const char* path);                                      // 1
  // True when text was a document; "<Vexilo/>" makes a blank one.
  virtual bool Parse(const char* text);                                         // 2
  virtual void Destroy();                                                       // 3
  virtual void GetNodeName(CVxXMLElement& e, CStringBuffer& out);               // 4
  virtual CVxXMLElement GetRootNode();                                          // 5
  virtual void GetDocument(CStringBuffer& out);                                 // 6
  // The element and its content as text; indent selects the indented layout.
  virtual void GetDocument(CVxXMLElement& e, CBufStream& out, bool indent);     // 7
  virtual void GetDocument(CVxXMLElement& e, CBufStream& out);                  // 8
  // The first element of that name in document order, at any depth.
  virtual CVxXMLElement GetNodeByName(const char* name);                        // 9
  virtual CVxXMLElement GetNode(const char* path, CVxXMLElement& from);         // 10
  virtual CVxXMLElement GetNode(const char* path);                              // 11
  // Every element the path reaches when each name may match several
  // siblings; returns how many.
  virtual int GetAllNodes(const char* path, std::vector<CVxXMLElement>& out);   // 12
  virtual int GetAllNodes(const char* path, CVxXMLElement& from,
                          std::vector<CVxXMLElement>& out);                     // 13
  virtual void GetText(const char* path, CVxXMLElement& from, CBufStream& out); // 14
  virtual void GetText(const char* path, CBufStream& out);                      // 15
  virtual void GetValue(const char* path, CBufStream& out);                     // 16
  // Replaces out's content by the element's text; empty when there is no
  // such element.
  virtual void GetValue(CVxXMLElement& from, const char* path, CBufStream& out); // 17
  // Creates the element and every missing element on the way; created is set
  // when anything new was added. option is unused.
  virtual CVxXMLElement CreateNode(const char* path, bool& created, bool option); // 18
  // Creates the path under parent; with always set, the last name is added as
  // a new element even when one of that name exists.
  virtual CVxXMLElement CreateNode(CVxXMLElement& parent, const char* path, bool always); // 19
  virtual CVxXMLElement CreateNode(const char* path, bool always);              // 20
  virtual CVectorWrapper* GetAllChildNodes(const char* path);                   // 21
  virtual int GetAllChildNodes(CVxXMLElement& e, std::vector<CVxXMLElement>& out); // 22
  virtual int GetAllChildNodes(const char* path, std::vector<CVxXMLElement>& out); // 23
  virtual void FreeWrapper(CVectorWrapper* wrapper);                            // 24
  // Numbers are stored as decimal text; missing elements are created.
  virtual bool SetValue(const char* path, unsigned long value);                 // 25
  virtual bool SetValue(const char* path, long value);                          // 26
  virtual bool SetValue(const char* path, int value);                           // 27
  virtual bool SetValue(const char* path, const char* text, bool create);       // 28
  virtual bool SetValue(CVxXMLElement& from, const char* path, const char* text,
                        bool create);                                           // 29
  virtual bool SetValue(const char* path, CVxXMLElement& from, const char* text,
                        bool create);                                           // 30
  // Decimal values; a missing element or a text that is no number reads 0.
  virtual int GetValueInt(CVxXMLElement& from, char* path);                     // 31
  virtual int GetValueInt(const char* path);                                    // 32
  virtual long GetValueLong(CVxXMLElement& from, const char* path);             // 33
  virtual long GetValueLong(const char* path);                                  // 34
  virtual const char* GetFileName();                                            // 35
  virtual CVxXMLElement CreateTextNode(const char* text, CVxXMLElement& parent); // 36
  virtual int Store();                                                          // 37
  virtual int Store(const char* path);                                          // 38
  // Writes length bytes of text (all of it when length is negative). 0 on success.
  virtual int WriteToFile(const char* path, const char* text, int length);      // 39

 protected:
  virtual int WriteToFile(const char* path, CStringBuffer& text);               // 40

  // Replaces the document by the one in text; false (document unchanged)
  // when it is none.
  bool Load(const char* text, std::size_t length, unsigned parseOptions);
  // Reads the file, remembers its name and parses it; the object is empty
  // when that fails.
  int ParseFileWith(const char* path, unsigned parseOptions);
  // The document as stored in files.
  void Serialize(CStringBuffer& out);

  VxXMLDocument* document_;  // null while empty
  CStringBuffer fileName_;
};

// The class every document of the system uses. Its stores replace a file in
// one step (written beside it, then renamed over it), so a reader never sees
// a half-written document and a crash leaves the old one in place.
class VX_EXPORT CSecureXMLParser : public CVxXML {
 public:
  CSecureXMLParser();
  ~CSecureXMLParser() override;

  int ParseFile(const char* path) override;                                     // 1
  bool Parse(const char* text) override;                                        // 2
  void Destroy() override;                                                      // 3
  using CVxXML::Store;
  int Store(const char* path) override;                                         // 38
  using CVxXML::WriteToFile;

  // Replaces the document by an empty root element. 0 on success.
  virtual int CreateBlank();                                                    // 41
  // Joins the texts into one document, makes it the current one and stores it
  // to the remembered file name. 0 on success.
  virtual int Store(std::vector<CStringBuffer>& parts);                         // 42

 protected:
  int WriteToFile(const char* path, CStringBuffer& text) override;              // 40

 private:
  std::uint32_t parseOptions_;  // how files and texts are parsed
};
