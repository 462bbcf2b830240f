#include "StateFileSupport.h"

#include <fcntl.h>
#include <libxml/parser.h>
#include <libxml/xmlwriter.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <mutex>
#include <stdexcept>

#include "CVStaticHelpers.h"

namespace {

const char kSchemaNamespace[] = "http://www.w3.org/2001/XMLSchema";
const char kSchemaInstanceNamespace[] = "http://www.w3.org/2001/XMLSchema-instance";

void InitLibxml() {
  // libxml2 wants its globals set up once before threads use it.
  static std::once_flag once;
  std::call_once(once, [] { xmlInitParser(); });
}

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

// The state of one parse, handed to libxml2's callbacks.
struct ParseRun {
  StateFileSupport::Handler& handler;
  xmlParserCtxtPtr context = nullptr;
  std::string text;
  std::optional<StateFileSupport::ParseError> error;
};

std::string_view Name(const xmlChar* localname) {
  return localname ? std::string_view(reinterpret_cast<const char*>(localname)) : std::string_view();
}

// An exception must not unwind through libxml2's C frames: it stops the parse instead.
template <typename Body>
void Guarded(ParseRun* run, Body&& body) {
  try {
    body();
  } catch (const std::exception& exception) {
    if (!run->error) run->error = StateFileSupport::ParseError{0, exception.what(), 0, 0};
    xmlStopParser(run->context);
  }
}

void OnStart(void* context, const xmlChar* localname, const xmlChar*, const xmlChar*, int, const xmlChar**, int,
             int, const xmlChar**) {
  auto* run = static_cast<ParseRun*>(context);
  Guarded(run, [&] {
    run->text.clear();
    run->handler.StartElement(Name(localname));
  });
}

void OnEnd(void* context, const xmlChar* localname, const xmlChar*, const xmlChar*) {
  auto* run = static_cast<ParseRun*>(context);
  Guarded(run, [&] {
    std::string text;
    text.swap(run->text);
    run->handler.EndElement(Name(localname), text);
  });
}

void OnCharacters(void* context, const xmlChar* characters, int length) {
  auto* run = static_cast<ParseRun*>(context);
  Guarded(run, [&] {
    if (length > 0) run->text.append(reinterpret_cast<const char*>(characters), static_cast<std::size_t>(length));
  });
}

// libxml2 changed the constness of the error argument between versions.
template <typename ErrorPointer>
void OnError(void* context, ErrorPointer error) {
  auto* run = static_cast<ParseRun*>(context);
  if (!error || error->level < XML_ERR_ERROR || run->error) return;
  StateFileSupport::ParseError first;
  first.code = error->code;
  first.description = StateFileSupport::TrimValue(error->message ? error->message : "");
  first.line = error->line;
  first.column = error->int2;
  run->error = std::move(first);
}

}  // namespace

struct StateFileSupport::DocumentWriter::Parts {
  xmlBufferPtr buffer = nullptr;
  xmlTextWriterPtr writer = nullptr;
  ~Parts() {
    if (writer) xmlFreeTextWriter(writer);
    if (buffer) xmlBufferFree(buffer);
  }
};

namespace {
void Check(int result, const char* what) {
  if (result < 0) throw std::runtime_error(std::string("the XML writer failed at ") + what);
}
const xmlChar* X(const char* text) { return reinterpret_cast<const xmlChar*>(text); }
}  // namespace

StateFileSupport::DocumentWriter::DocumentWriter(const char* rootName) : parts_(std::make_unique<Parts>()) {
  InitLibxml();
  parts_->buffer = xmlBufferCreate();
  if (parts_->buffer) parts_->writer = xmlNewTextWriterMemory(parts_->buffer, 0);
  if (!parts_->writer) throw std::runtime_error("the XML writer cannot be made");
  Check(xmlTextWriterSetIndent(parts_->writer, 1), "indent");
  Check(xmlTextWriterSetIndentString(parts_->writer, X("  ")), "indent");
  Check(xmlTextWriterStartDocument(parts_->writer, nullptr, "UTF-8", nullptr), "the document");
  Check(xmlTextWriterStartElement(parts_->writer, X(rootName)), rootName);
  Check(xmlTextWriterWriteAttribute(parts_->writer, X("xmlns:xsd"), X(kSchemaNamespace)), "xmlns:xsd");
  Check(xmlTextWriterWriteAttribute(parts_->writer, X("xmlns:xsi"), X(kSchemaInstanceNamespace)), "xmlns:xsi");
}

StateFileSupport::DocumentWriter::~DocumentWriter() = default;

void StateFileSupport::DocumentWriter::StartRecord(const char* name) {
  Check(xmlTextWriterStartElement(parts_->writer, X(name)), name);
}

void StateFileSupport::DocumentWriter::Element(const char* name, const std::string& value) {
  Check(xmlTextWriterWriteElement(parts_->writer, X(name), X(value.c_str())), name);
}

void StateFileSupport::DocumentWriter::EndRecord() { Check(xmlTextWriterEndElement(parts_->writer), "a record"); }

std::string StateFileSupport::DocumentWriter::Finish() {
  Check(xmlTextWriterEndDocument(parts_->writer), "the end");
  Check(xmlTextWriterFlush(parts_->writer), "the end");
  const xmlChar* content = xmlBufferContent(parts_->buffer);
  return std::string(reinterpret_cast<const char*>(content), static_cast<std::size_t>(xmlBufferLength(parts_->buffer)));
}

StateFileRead StateFileSupport::ReadBytes(const std::string& path, std::string& bytes, std::string& error) {
  bytes.clear();
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return StateFileRead::Missing;
    error = std::strerror(errno);
    return StateFileRead::Unreadable;
  }
  char buffer[65536];
  while (true) {
    ssize_t got = read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      error = std::strerror(errno);
      close(fd);
      bytes.clear();
      return StateFileRead::Unreadable;
    }
    if (got == 0) break;
    bytes.append(buffer, static_cast<std::size_t>(got));
  }
  close(fd);
  return StateFileRead::Whole;
}

std::optional<StateFileSupport::ParseError> StateFileSupport::Parse(std::string_view bytes, Handler& handler) {
  InitLibxml();
  ParseRun run{handler, nullptr, {}, std::nullopt};
  xmlSAXHandler sax;
  std::memset(&sax, 0, sizeof sax);
  sax.initialized = XML_SAX2_MAGIC;
  sax.startElementNs = OnStart;
  sax.endElementNs = OnEnd;
  sax.characters = OnCharacters;
  sax.cdataBlock = OnCharacters;
  sax.serror = OnError;

  xmlParserCtxtPtr context = xmlCreatePushParserCtxt(&sax, &run, nullptr, 0, nullptr);
  if (!context) return ParseError{0, "the XML parser cannot be made", 0, 0};
  run.context = context;
  xmlCtxtUseOptions(context, XML_PARSE_NONET);
  // Fed in pieces: a chunk's length is an int.
  constexpr std::size_t kChunk = 1 << 20;
  std::size_t offset = 0;
  do {
    std::size_t length = std::min(kChunk, bytes.size() - offset);
    bool last = offset + length == bytes.size();
    xmlParseChunk(context, bytes.data() + offset, static_cast<int>(length), last ? 1 : 0);
    offset += length;
    if (run.error) break;
  } while (offset < bytes.size());
  bool wellFormed = context->wellFormed != 0;
  xmlFreeParserCtxt(context);
  if (!run.error && !wellFormed) run.error = ParseError{0, "the document is not well formed", 0, 0};
  return run.error;
}

bool StateFileSupport::WriteStateFile(const std::string& path, const std::string& bytes) {
  CVStaticHelpers::CreateSettingsFolder();
  return CVStaticHelpers::WriteFileAtomically(path, bytes, 0600);
}

std::string StateFileSupport::KeepBrokenCopy(const std::string& path, const std::string& bytes) {
  if (bytes.empty()) return "";
  char name[32];
  std::snprintf(name, sizeof name, ".broken-%016zx", std::hash<std::string>{}(bytes));
  std::string copy = path + name;
  struct stat info {};
  if (stat(copy.c_str(), &info) == 0) return copy;
  return WriteStateFile(copy, bytes) ? copy : "";
}

bool StateFileSupport::IsStorableText(std::string_view text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* end = p + text.size();
  while (p < end) {
    unsigned char c = *p;
    if (c < 0x80) {
      if (c < 0x20 && c != '\t' && c != '\n' && c != '\r') return false;
      ++p;
      continue;
    }
    int extra;
    std::uint32_t code;
    if ((c & 0xE0) == 0xC0) {
      extra = 1;
      code = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      extra = 2;
      code = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      extra = 3;
      code = c & 0x07;
    } else {
      return false;
    }
    if (end - p <= extra) return false;
    for (int i = 1; i <= extra; ++i) {
      if ((p[i] & 0xC0) != 0x80) return false;
      code = (code << 6) | (p[i] & 0x3F);
    }
    static const std::uint32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
    if (code < kSmallest[extra] || code > 0x10FFFF) return false;        // overlong or out of range
    if ((code >= 0xD800 && code <= 0xDFFF) || code == 0xFFFE || code == 0xFFFF) return false;
    p += extra + 1;
  }
  return true;
}

std::string StateFileSupport::PrintableText(std::string_view text) {
  if (IsStorableText(text)) return std::string(text);
  std::string out;
  for (unsigned char c : text) {
    if (c >= 0x20 && c < 0x7F) {
      out += static_cast<char>(c);
    } else {
      char escaped[5];
      std::snprintf(escaped, sizeof escaped, "\\x%02X", c);
      out += escaped;
    }
  }
  return out;
}

std::string StateFileSupport::TrimValue(std::string_view text) {
  std::size_t begin = 0;
  std::size_t end = text.size();
  while (begin < end && IsSpace(text[begin])) ++begin;
  while (end > begin && IsSpace(text[end - 1])) --end;
  return std::string(text.substr(begin, end - begin));
}

std::string StateFileSupport::TrimPath(std::string_view text) {
  std::size_t begin = 0;
  while (begin < text.size() && IsSpace(text[begin])) ++begin;
  std::size_t end = text.size();
  std::size_t runStart = end;
  while (runStart > begin && IsSpace(text[runStart - 1])) --runStart;
  std::string_view run = text.substr(runStart, end - runStart);
  if (run.find_first_of("\n\r") != std::string_view::npos) end = runStart;
  return std::string(text.substr(begin, end - begin));
}

bool StateFileSupport::ToInt64(std::string_view text, std::int64_t& value) {
  if (text.size() > 1 && text.front() == '+' && text[1] >= '0' && text[1] <= '9') text.remove_prefix(1);
  if (text.empty()) return false;
  std::int64_t parsed = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed);
  if (error != std::errc() || end != text.data() + text.size()) return false;
  value = parsed;
  return true;
}

bool StateFileSupport::ToInt32(std::string_view text, std::int32_t& value) {
  std::int64_t wide = 0;
  if (!ToInt64(text, wide) || wide < INT32_MIN || wide > INT32_MAX) return false;
  value = static_cast<std::int32_t>(wide);
  return true;
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
