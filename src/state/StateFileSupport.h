#pragma once
// StateFileSupport: what the two record files, DownloadedFiles.xml and
// NewFiles.xml, share beyond the XML itself (CVStateXMLFile): the read of a file
// of records with its log lines and the copy of a broken file, the "YES"/"NO"
// flags, whole numbers, paths, and the folder-match test. Stateless; any thread.

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CVStateXMLFile.h"

class StateFileSupport {
 public:
  // A record file and who reads it, for the log lines of a read.
  struct RecordFile {
    std::string path;
    std::recursive_mutex* lock = nullptr;  // guards the file's bytes
    const char* className = "";
    const char* method = "";
    const char* recordElement = "";  // the element of one record
    // Logs a parse error, given as "Error %li, Description: %@, Line: %li, Column: %li".
    std::function<void(const std::string& error)> logParseError;
  };

  // Sets the field of a record that the element names; other elements are not
  // ours. False when the text is no value for the field (logged).
  template <typename Record>
  using FieldReader = std::function<bool(Record& record, std::string_view name, std::string_view text)>;

  // The records of the file in file order. A record counts once its element has
  // closed: one cut off by a broken file is left out, since its missing fields
  // would pass for a state that never was; one left open by a hand edit ends
  // where the next begins. Nothing when the file is missing or cannot be read
  // (logged). A file that does not parse or holds wrong values gives what was
  // read (logged, and the file's bytes kept beside it). Creates the root and
  // settings folders where they are missing. state tells which it was.
  template <typename Record>
  static std::optional<std::vector<Record>> ReadRecords(const RecordFile& file, const FieldReader<Record>& readField,
                                                        StateFileRead& state);

  // Reads a whole number into field; an empty text leaves it as it is. False,
  // with a line in the log, when text holds no number: the field keeps its value.
  static bool ReadNumber(const RecordFile& file, std::string_view name, std::string_view text, std::int64_t& field);
  static bool ReadNumber(const RecordFile& file, std::string_view name, std::string_view text, std::int32_t& field);

  static const char* YesNo(bool value) { return value ? "YES" : "NO"; }
  // Only "YES", around white space, is true.
  static bool IsYes(std::string_view text) { return CVStateXMLFile::Trim(text) == "YES"; }
  // A stored path is absolute: white space before it is layout, and so is a run
  // at its end that holds a new line. Trailing spaces, which a file name may end
  // with, stay.
  static std::string TrimPath(std::string_view text);

  // True when path is folder or lies below it: "Docs2" is not below "Docs".
  // A "/" at the end of folder is ignored. "" and "/" hold nothing here: no
  // caller ever means every path.
  static bool IsSameOrBelow(std::string_view path, std::string_view folder);
  // Whole seconds since 1970, now.
  static std::int64_t NowSeconds();

 private:
  // The element events of a record file, one record at a time.
  struct RecordEvents {
    std::function<void()> start;
    std::function<void()> end;
    std::function<bool(std::string_view name, std::string_view text)> field;
    std::function<std::size_t()> count;  // whole records so far
  };
  static StateFileRead ReadRecordFile(const RecordFile& file, const RecordEvents& events);
};

template <typename Record>
std::optional<std::vector<Record>> StateFileSupport::ReadRecords(const RecordFile& file,
                                                                 const FieldReader<Record>& readField,
                                                                 StateFileRead& state) {
  std::vector<Record> records;
  std::optional<Record> current;
  RecordEvents events;
  events.start = [&] {
    if (current) records.push_back(std::move(*current));
    current.emplace();
  };
  events.end = [&] {
    if (current) records.push_back(std::move(*current));
    current.reset();
  };
  events.field = [&](std::string_view name, std::string_view text) {
    return !current || readField(*current, name, text);
  };
  events.count = [&] { return records.size(); };
  state = ReadRecordFile(file, events);
  if (state == StateFileRead::Missing || state == StateFileRead::Unreadable) return std::nullopt;
  return records;
}
