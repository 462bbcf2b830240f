#pragma once
// StateFileSupport: what the readers and writers of the XML state files under
// ".Settings" share: reading a file's bytes, an event-driven parse, the
// pretty-printed document, the text rules of stored values, the replacement of a
// file, and a copy kept of a file that does not read cleanly. Stateless; any thread.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

// How the last read of a state file went.
enum class StateFileRead {
  Missing,     // no file: an empty state
  Whole,       // every record read
  Broken,      // the file does not parse or holds wrong values; what was read stands
  Unreadable,  // the file is there but its bytes could not be read: nothing may replace it
};

class StateFileSupport {
 public:
  // Receives the elements of a document as they are parsed. Text is the text
  // gathered since the element's start (or the last child's end), untrimmed.
  class Handler {
   public:
    virtual ~Handler() = default;
    virtual void StartElement(std::string_view name) = 0;
    virtual void EndElement(std::string_view name, std::string_view text) = 0;
  };

  struct ParseError {
    long code = 0;
    std::string description;
    long line = 0;
    long column = 0;
  };

  // Builds a document in memory: root with the two schema namespaces, one child
  // element per record, one text element per field, indented. Throws
  // std::runtime_error when the writer fails.
  class DocumentWriter {
   public:
    explicit DocumentWriter(const char* rootName);
    ~DocumentWriter();
    DocumentWriter(const DocumentWriter&) = delete;
    DocumentWriter& operator=(const DocumentWriter&) = delete;

    void StartRecord(const char* name);
    void Element(const char* name, const std::string& value);
    void EndRecord();
    // Closes the root and hands out the UTF-8 bytes of the document.
    std::string Finish();

   private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
  };

  // Missing when nothing stands at path; Unreadable (with error) when its bytes
  // cannot be read whole.
  static StateFileRead ReadBytes(const std::string& path, std::string& bytes, std::string& error);
  // Parses bytes, calling handler for each element. Entities beyond the five of
  // XML are not expanded and nothing is fetched. The first error, or nothing.
  static std::optional<ParseError> Parse(std::string_view bytes, Handler& handler);

  // Makes ".Settings" where it is missing and replaces path with bytes (mode 0600):
  // readers see the old file or the new one, never a part.
  [[nodiscard]] static bool WriteStateFile(const std::string& path, const std::string& bytes);
  // Keeps bytes of a file that did not read cleanly beside it, named after its
  // content ("<path>.broken-<hash>"), so that a later save loses nothing. The copy's
  // path, or "" when it could not be written. The same content is kept only once.
  static std::string KeepBrokenCopy(const std::string& path, const std::string& bytes);

  // True when text can stand in an XML 1.0 document: valid UTF-8 without control
  // characters other than tab, line feed and carriage return.
  static bool IsStorableText(std::string_view text);
  // The text for a log line: bytes that cannot be printed as "\xNN".
  static std::string PrintableText(std::string_view text);

  static const char* YesNo(bool value) { return value ? "YES" : "NO"; }
  static bool IsYes(std::string_view text) { return text == "YES"; }
  // Without white space and new lines at either end.
  static std::string TrimValue(std::string_view text);
  // A path keeps trailing spaces, which a file name may end with; only the
  // indentation of a hand-edited file around it (a run holding a new line) goes.
  static std::string TrimPath(std::string_view text);
  // Whole decimal numbers with an optional sign; false for anything else.
  static bool ToInt64(std::string_view text, std::int64_t& value);
  static bool ToInt32(std::string_view text, std::int32_t& value);

  // True when path is folder or lies below it: "Docs2" is not below "Docs".
  // A "/" at the end of folder is ignored. "" and "/" hold nothing here: no
  // caller ever means every path.
  static bool IsSameOrBelow(std::string_view path, std::string_view folder);
  // Whole seconds since 1970, now.
  static std::int64_t NowSeconds();
};
