#include "StateFileSupport.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <exception>

#include "CVEventLogger.h"
#include "CVStateXMLFile.h"
#include "CVStaticHelpers.h"

namespace {

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

// Whole decimal numbers with an optional sign; false for anything else.
bool ToInt64(std::string_view text, std::int64_t& value) {
  if (text.size() > 1 && text.front() == '+' && text[1] >= '0' && text[1] <= '9') text.remove_prefix(1);
  if (text.empty()) return false;
  std::int64_t parsed = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed);
  if (error != std::errc() || end != text.data() + text.size()) return false;
  value = parsed;
  return true;
}

bool ToInt32(std::string_view text, std::int32_t& value) {
  std::int64_t wide = 0;
  if (!ToInt64(text, wide) || wide < INT32_MIN || wide > INT32_MAX) return false;
  value = static_cast<std::int32_t>(wide);
  return true;
}

template <typename Integer>
bool ReadWholeNumber(const StateFileSupport::RecordFile& file, std::string_view name, std::string_view text,
                     Integer& field) {
  std::string value = CVStateXMLFile::Trim(text);
  if (value.empty()) return true;
  bool good;
  if constexpr (sizeof(Integer) == 8) {
    good = ToInt64(value, field);
  } else {
    good = ToInt32(value, field);
  }
  if (good) return true;
  CVEventLogger::LogException(file.className, file.method,
                              "element " + std::string(name) + " holds \"" + CVStateXMLFile::PrintableText(value) +
                                  "\", not a number; the field keeps its default");
  return false;
}

}  // namespace

StateFileRead StateFileSupport::ReadRecordFile(const RecordFile& file, const RecordEvents& events) {
  try {
    CVStaticHelpers::CreateSettingsFolder();
    // Opened under the lock: a save replaces the file by a rename, so what is
    // open stays the whole file of this moment, read in pieces after the lock.
    int fd = -1;
    {
      std::lock_guard<std::recursive_mutex> lock(*file.lock);
      fd = open(file.path.c_str(), O_RDONLY | O_CLOEXEC);
    }
    if (fd < 0) {
      if (errno == ENOENT) return StateFileRead::Missing;
      CVEventLogger::LogException(file.className, file.method,
                                  "cannot read " + file.path + ": " + std::strerror(errno));
      return StateFileRead::Unreadable;
    }
    struct Closer {
      int fd;
      ~Closer() { close(fd); }
    } closer{fd};

    bool wrongValues = false;
    CVStateXMLFile::Events xml;
    xml.startElement = [&](const std::string& name) {
      if (name == file.recordElement) events.start();
    };
    xml.endElement = [&](const std::string& name, const std::string& text) {
      if (name == file.recordElement) {
        events.end();
        return;
      }
      try {
        if (!events.field(name, text)) wrongValues = true;
      } catch (const std::exception& exception) {
        wrongValues = true;
        CVEventLogger::LogException(file.className, file.method, exception.what());
      }
    };
    int readError = 0;
    auto parseError = CVStateXMLFile::ParseFile(fd, xml, readError);
    if (readError != 0) {
      // Not a broken document but an unread one: nobody may save over it.
      CVEventLogger::LogException(file.className, file.method,
                                  "cannot read " + file.path + ": " + std::strerror(readError));
      return StateFileRead::Unreadable;
    }
    if (parseError) {
      file.logParseError("Error " + std::to_string(parseError->code) + ", Description: " + parseError->description +
                         ", Line: " + std::to_string(parseError->line) +
                         ", Column: " + std::to_string(parseError->column));
    }
    if (!parseError && !wrongValues) return StateFileRead::Whole;

    // The copy is of the file as it was read; an empty file holds nothing to keep.
    std::string bytes;
    bool reread = lseek(fd, 0, SEEK_SET) == 0 && CVStateXMLFile::ReadDescriptor(fd, bytes);
    std::string copy = !reread || bytes.empty() ? "" : CVStateXMLFile::KeepBrokenCopy(file.path, bytes);
    CVEventLogger::LogException(file.className, file.method,
                                std::to_string(events.count()) + " records read; " +
                                    (copy.empty() ? "the file as it was could not be kept"
                                                  : "the file as it was is kept in " + copy));
    return StateFileRead::Broken;
  } catch (const std::exception& exception) {
    // Nothing is known of the file now: no caller may save over it.
    CVEventLogger::LogException(file.className, file.method, exception.what());
    return StateFileRead::Unreadable;
  }
}

bool StateFileSupport::ReadNumber(const RecordFile& file, std::string_view name, std::string_view text,
                                  std::int64_t& field) {
  return ReadWholeNumber(file, name, text, field);
}

bool StateFileSupport::ReadNumber(const RecordFile& file, std::string_view name, std::string_view text,
                                  std::int32_t& field) {
  return ReadWholeNumber(file, name, text, field);
}

std::string StateFileSupport::TrimPath(std::string_view text) {
  std::size_t begin = 0;
  while (begin < text.size() && IsSpace(text[begin])) ++begin;
  return CVStateXMLFile::TrimLayout(text.substr(begin));
}

bool StateFileSupport::IsSameOrBelow(std::string_view path, std::string_view folder) {
  while (!folder.empty() && folder.back() == '/') folder.remove_suffix(1);
  if (folder.empty()) return false;
  if (path == folder) return true;
  return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 && path[folder.size()] == '/';
}

std::int64_t StateFileSupport::NowSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}
