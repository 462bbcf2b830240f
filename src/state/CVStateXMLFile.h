#pragma once
// CVStateXMLFile: what every XML file under ".Settings" shares: reading a file's
// bytes, an event-driven parse, a pretty-printed writer, the check that a text
// can be stored in XML, the atomic save with mode 0600, and a copy kept of a file
// that did not read cleanly, so that what it held is never overwritten.
// Stateless; any thread.

#include <libxml/xmlwriter.h>

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>
#include <string_view>

// How the read of a state file went.
enum class StateFileRead {
  Missing,     // no file: an empty state
  Whole,       // every record read
  Broken,      // the file does not parse or holds wrong values; what was read stands
  Unreadable,  // the file is there but its bytes could not be read: nothing may replace it
};

class CVStateXMLFile {
 public:
  // A message of the parser: the first error of a document that did not parse,
  // or any message handed to Events::diagnostic.
  struct ParseError {
    long code = 0;
    std::string description;
    long line = 0;
    long column = 0;
  };

  // The callbacks of a read; each may be left empty. A callback that throws stops
  // the read, and its message becomes the read's error.
  struct Events {
    std::function<void(const std::string& name)> startElement;
    // The same start tag with its attributes (name, value), in document order.
    std::function<void(const std::string& name, const std::vector<std::pair<std::string, std::string>>& attributes)>
        startElementAttributes;
    // text is what stood between the previous tag and this closing one, untrimmed.
    std::function<void(const std::string& name, const std::string& text)> endElement;
    // Each piece of text as the parser hands it over, for a reader that gathers
    // text by rules of its own.
    std::function<void(std::string_view text)> characters;
    // Every message of the parser, warnings included, in the order they come.
    std::function<void(const ParseError& message)> diagnostic;
  };

  // Parses text with libxml2's SAX interface: no network, no external entities,
  // entities beyond the five of XML are not expanded. Nothing when the document
  // was read whole, else its first error; the events before the error have been
  // delivered, and the parser goes on past errors it can recover from.
  static std::optional<ParseError> Parse(std::string_view text, const Events& events);
  // The same over an open file from its offset, read in pieces: a large file
  // never stands whole in memory. readError: the errno of a failed read, which
  // ends the parse with an error; 0 when every read went through.
  static std::optional<ParseError> ParseFile(int fd, const Events& events, int& readError);

  // A UTF-8 document, indented two spaces per level, built in memory or handed
  // piece by piece to a sink.
  class Writer {
   public:
    struct Attribute {
      const char* name;
      const char* value;
    };
    // The schema namespaces that the records and the configuration declare on their root.
    static constexpr Attribute kSchemaNamespaces[] = {
        {"xmlns:xsd", "http://www.w3.org/2001/XMLSchema"},
        {"xmlns:xsi", "http://www.w3.org/2001/XMLSchema-instance"},
    };

    using Sink = std::function<bool(std::string_view bytes)>;

    // sink: takes the document in pieces as it is written (false when it cannot,
    // which fails the writer); without one the document is kept in memory.
    explicit Writer(Sink sink = nullptr);
    ~Writer();
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    // Opens an element, with its attributes in the order given.
    void StartElement(const char* name, std::span<const Attribute> attributes = {});
    void EndElement();
    // A leaf element holding text, escaped as XML needs.
    void WriteElement(const char* name, const std::string& text);
    // Closes what is still open and gives the document's bytes (empty with a
    // sink); nothing when any step failed.
    std::optional<std::string> Finish();
    // The step that failed first, for a log line; "" while none has.
    const std::string& failure() const { return failure_; }

   private:
    static int Append(void* context, const char* bytes, int length);
    void Check(int result, const char* step);

    Sink sink_;
    bool sinkFailed_ = false;
    std::string text_;
    xmlTextWriterPtr writer_ = nullptr;
    std::string failure_;
  };

  // True when text can stand in an XML 1.0 document: valid UTF-8 of allowed characters.
  static bool IsXMLText(std::string_view text);
  // The text for a log line: when it cannot stand in XML, bytes that cannot be
  // printed become "\xNN".
  static std::string PrintableText(std::string_view text);
  // Removes white space and line breaks from both ends.
  static std::string Trim(std::string_view text);
  // Removes layout only: a run of white space at either end that holds a line
  // break. A name that ends in a space keeps it.
  static std::string TrimLayout(std::string_view text);

  // Missing when nothing stands at path; Unreadable (with error) when its bytes
  // cannot be read whole; else Whole with bytes.
  static StateFileRead ReadFile(const std::string& path, std::string& bytes, std::string& error);
  // The rest of an open file from its offset; false (errno in readError) when a read failed.
  static bool ReadDescriptor(int fd, std::string& bytes, int* readError = nullptr);
  // The whole file; nothing when it is missing or cannot be read.
  static std::optional<std::string> ReadWholeFile(const std::string& path);
  // Makes ".Settings" where it is missing and replaces the file with bytes, mode
  // 0600: readers see the old file or the new one, never a part. False (logged)
  // when the old file stays as it was.
  [[nodiscard]] static bool Save(const std::string& path, const std::string& bytes);
  // The same with the document that write gives to the writer, streamed into the
  // new file: a large document never stands whole in memory. False (logged) when
  // the writer failed or the file could not be written; the old file stays.
  [[nodiscard]] static bool SaveStreamed(const std::string& path, const std::function<void(Writer&)>& write);

  // How the read of a store went that keeps its state in memory and writes its
  // file back whole.
  struct StoreRead {
    StateFileRead state = StateFileRead::Missing;
    std::optional<ParseError> error;  // why a Broken file did not parse
    std::string keptCopy;             // where an Unreadable or Broken file is kept; "" when nowhere
    // True when the store should write its file at once: a missing one is made,
    // an unreadable or broken one is replaced only once what it held is kept.
    bool rewrite = false;
  };
  // Reads the store's file at path and parses it with events. A file that cannot
  // be read is moved aside, one that does not parse is copied beside it.
  static StoreRead ReadStore(const std::string& path, const Events& events);

  // Keeps a file that did not read cleanly beside it, as
  // "<path>.broken-<16 hex digits>", so that a later save loses nothing. Gives
  // the copy's path, or "" when nothing could be kept.
  // bytes are what was read of it: the copy is named after them, so the same
  // content is kept once, and the file itself stays.
  static std::string KeepBrokenCopy(const std::string& path, const std::string& bytes);
  // For a file whose bytes could not be read: the file itself is moved aside,
  // under a name of the same form that no other copy has.
  static std::string KeepBrokenCopy(const std::string& path);
 private:
  // Parses what read (libxml2's input callback) gives from source.
  static std::optional<ParseError> ParseFrom(int (*read)(void*, char*, int), void* source, const Events& events);
};
