#pragma once
// CVStateXMLFile: what the small XML stores under ".Settings" share: an
// event-driven read, a pretty-printed writer, the atomic save with mode 0600, and
// moving a damaged file aside so that what it held is never overwritten.
// Any thread; nothing here keeps state between calls.

#include <libxml/xmlwriter.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>

class CVStateXMLFile {
 public:
  // The callbacks of a read; text is what stood between the previous tag and this
  // closing one. A callback must not throw.
  struct Events {
    std::function<void(const std::string& name)> startElement;
    std::function<void(const std::string& name, const std::string& text)> endElement;
  };

  // The first error of a document that did not parse.
  struct ParseError {
    long code = 0;
    std::string description;
    long line = 0;
    long column = 0;
  };

  // Parses text with libxml2's SAX interface: no network, no external entities.
  // Nothing when the document was read whole, else its first error; the events
  // before the error have been delivered.
  static std::optional<ParseError> Parse(std::string_view text, const Events& events);

  // A UTF-8 document built in memory, indented one level per element.
  class Writer {
   public:
    Writer();
    ~Writer();
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    void StartElement(const char* name);
    void EndElement();
    void WriteElement(const char* name, const std::string& text);
    // The document's bytes; nothing when any step failed.
    std::optional<std::string> Finish();

   private:
    xmlBufferPtr buffer_ = nullptr;
    xmlTextWriterPtr writer_ = nullptr;
    bool good_ = true;
  };

  // True when text can stand in an XML 1.0 document: valid UTF-8 of allowed characters.
  static bool IsXMLText(std::string_view text);
  // Removes white space and line breaks from both ends.
  static std::string Trim(std::string_view text);
  // Removes layout only: a run of white space at either end that holds a line
  // break. A name that ends in a space keeps it.
  static std::string TrimLayout(std::string_view text);

  // The whole file; nothing when it cannot be read.
  static std::optional<std::string> ReadWholeFile(const std::string& path);
  // Replaces the file atomically with bytes, mode 0600. False (logged) when the
  // old file stays as it was.
  static bool Save(const std::string& path, const std::string& bytes);
  // Renames a file that cannot be read to path + ".damaged-<date>"; gives the new
  // path, or "" when it stays where it is.
  static std::string MoveDamagedAside(const std::string& path);
};
