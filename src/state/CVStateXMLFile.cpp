#include "CVStateXMLFile.h"

#include <fcntl.h>
#include <libxml/parser.h>
#include <libxml/xmlerror.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utf8proc.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <mutex>

#include "CVEventLogger.h"
#include "CVStaticHelpers.h"

namespace {

void EnsureLibraryReady() {
  // libxml2 wants its globals set up once before threads use it.
  static std::once_flag once;
  std::call_once(once, [] { xmlInitParser(); });
}

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

// The state of one parse, handed to libxml2's callbacks.
struct ParseState {
  const CVStateXMLFile::Events* events = nullptr;
  xmlParserCtxtPtr context = nullptr;
  std::string text;
  std::optional<CVStateXMLFile::ParseError> error;
};

// The document's bytes, handed to the parser as it asks for them: a pull parse
// of any length, where a memory parse would stop at an int's worth.
struct Source {
  std::string_view rest;
};

int ReadSource(void* context, char* buffer, int length) {
  auto* source = static_cast<Source*>(context);
  std::size_t count = std::min(static_cast<std::size_t>(std::max(length, 0)), source->rest.size());
  std::memcpy(buffer, source->rest.data(), count);
  source->rest.remove_prefix(count);
  return static_cast<int>(count);
}

int CloseSource(void*) { return 0; }

// An open file read in pieces as the parser asks for them; a failed read ends
// the parse and is remembered, so that it is not taken for a broken document.
// The parser asks for a few kilobytes at a time; the file is read in larger pieces.
struct FileSource {
  int fd = -1;
  int readError = 0;
  std::string buffer;
  std::size_t used = 0;
};

int ReadFileSource(void* context, char* buffer, int length) {
  auto* source = static_cast<FileSource*>(context);
  if (source->used == source->buffer.size()) {
    source->buffer.resize(64 * 1024);
    source->used = 0;
    for (;;) {
      ssize_t got = read(source->fd, source->buffer.data(), source->buffer.size());
      if (got >= 0) {
        source->buffer.resize(static_cast<std::size_t>(got));
        break;
      }
      if (errno == EINTR) continue;
      source->readError = errno;
      source->buffer.clear();
      return -1;
    }
  }
  std::size_t count = std::min(static_cast<std::size_t>(std::max(length, 0)), source->buffer.size() - source->used);
  std::memcpy(buffer, source->buffer.data() + source->used, count);
  source->used += count;
  return static_cast<int>(count);
}

std::string ElementName(const xmlChar* name) { return name ? reinterpret_cast<const char*>(name) : ""; }

// A callback that throws would unwind through C frames: stop the parser instead.
template <typename Body>
void Guarded(ParseState* state, Body&& body) {
  try {
    body();
  } catch (const std::exception& exception) {
    if (!state->error) state->error = CVStateXMLFile::ParseError{-1, exception.what(), 0, 0};
    xmlStopParser(state->context);
  }
}

void OnStartElement(void* context, const xmlChar* localName, const xmlChar*, const xmlChar*, int,
                    const xmlChar**, int attributeCount, int, const xmlChar** attributes) {
  auto* state = static_cast<ParseState*>(context);
  Guarded(state, [&] {
    state->text.clear();
    if (state->events->startElement) state->events->startElement(ElementName(localName));
    if (state->events->startElementAttributes) {
      // Five pointers per attribute: local name, prefix, URI, value start, value end.
      std::vector<std::pair<std::string, std::string>> pairs;
      for (int i = 0; i < attributeCount && attributes; ++i) {
        const xmlChar** attribute = attributes + 5 * i;
        pairs.emplace_back(ElementName(attribute[0]),
                           std::string(reinterpret_cast<const char*>(attribute[3]),
                                       reinterpret_cast<const char*>(attribute[4])));
      }
      state->events->startElementAttributes(ElementName(localName), pairs);
    }
  });
}

void OnEndElement(void* context, const xmlChar* localName, const xmlChar*, const xmlChar*) {
  auto* state = static_cast<ParseState*>(context);
  Guarded(state, [&] {
    std::string text;
    text.swap(state->text);
    if (state->events->endElement) state->events->endElement(ElementName(localName), text);
  });
}

void OnCharacters(void* context, const xmlChar* characters, int length) {
  auto* state = static_cast<ParseState*>(context);
  Guarded(state, [&] {
    if (length <= 0) return;
    std::string_view piece(reinterpret_cast<const char*>(characters), static_cast<std::size_t>(length));
    state->text.append(piece);
    if (state->events->characters) state->events->characters(piece);
  });
}

// libxml2 made the error argument const in 2.12.
#if LIBXML_VERSION >= 21200
void OnError(void* context, const xmlError* error) {
#else
void OnError(void* context, xmlErrorPtr error) {
#endif
  auto* state = static_cast<ParseState*>(context);
  if (!error) return;
  CVStateXMLFile::ParseError message{error->code, CVStateXMLFile::Trim(error->message ? error->message : ""),
                                     error->line, error->int2};
  if (state->events->diagnostic) Guarded(state, [&] { state->events->diagnostic(message); });
  if (error->level >= XML_ERR_ERROR && !state->error) state->error = std::move(message);
}

}  // namespace

std::optional<CVStateXMLFile::ParseError> CVStateXMLFile::Parse(std::string_view text, const Events& events) {
  Source source{text};
  return ParseFrom(ReadSource, &source, events);
}

std::optional<CVStateXMLFile::ParseError> CVStateXMLFile::ParseFile(int fd, const Events& events, int& readError) {
  FileSource source;
  source.fd = fd;
  auto error = ParseFrom(ReadFileSource, &source, events);
  readError = source.readError;
  return error;
}

std::optional<CVStateXMLFile::ParseError> CVStateXMLFile::ParseFrom(int (*read)(void*, char*, int), void* source,
                                                                    const Events& events) {
  EnsureLibraryReady();
  // Only the callbacks we need: no tree, no entity loading, no DTD.
  xmlSAXHandler handler{};
  handler.initialized = XML_SAX2_MAGIC;
  handler.startElementNs = OnStartElement;
  handler.endElementNs = OnEndElement;
  handler.characters = OnCharacters;
  handler.cdataBlock = OnCharacters;
  handler.serror = OnError;

  ParseState state;
  state.events = &events;
  xmlParserCtxtPtr context =
      xmlCreateIOParserCtxt(&handler, &state, read, CloseSource, source, XML_CHAR_ENCODING_NONE);
  if (!context) return ParseError{-1, "the parser could not be created", 0, 0};
  state.context = context;
  xmlCtxtUseOptions(context, XML_PARSE_NONET);
  xmlParseDocument(context);
  if (!state.error && !context->wellFormed) {
    const xmlError* last = xmlCtxtGetLastError(context);
    state.error = ParseError{last ? last->code : -1,
                             Trim(last && last->message ? last->message : "the document is not well formed"),
                             last ? last->line : 0, last ? last->int2 : 0};
  }
  xmlFreeParserCtxt(context);
  return state.error;
}

int CVStateXMLFile::Writer::Append(void* context, const char* bytes, int length) {
  auto* self = static_cast<Writer*>(context);
  if (length <= 0) return 0;
  std::string_view piece(bytes, static_cast<std::size_t>(length));
  if (!self->sink_) {
    self->text_.append(piece);
    return length;
  }
  if (self->sinkFailed_ || !self->sink_(piece)) {
    self->sinkFailed_ = true;
    return -1;
  }
  return length;
}

CVStateXMLFile::Writer::Writer(Sink sink) : sink_(std::move(sink)) {
  EnsureLibraryReady();
  // The writer's own output buffer hands the text over in pieces; a memory buffer
  // of libxml2 would grow by a few bytes per write and copy itself each time.
  xmlOutputBufferPtr output = xmlOutputBufferCreateIO(Append, nullptr, this, nullptr);
  if (output) writer_ = xmlNewTextWriter(output);  // owns output from here on
  if (!writer_) {
    if (output) xmlOutputBufferClose(output);
    failure_ = "the XML writer cannot be made";
    return;
  }
  Check(xmlTextWriterSetIndent(writer_, 1), "indent");
  Check(xmlTextWriterSetIndentString(writer_, BAD_CAST "  "), "indent");
  Check(xmlTextWriterStartDocument(writer_, nullptr, "UTF-8", nullptr), "the document");
}

CVStateXMLFile::Writer::~Writer() {
  if (writer_) xmlFreeTextWriter(writer_);
}

void CVStateXMLFile::Writer::Check(int result, const char* step) {
  if (result < 0 && failure_.empty()) failure_ = std::string("the XML writer failed at ") + step;
}

void CVStateXMLFile::Writer::StartElement(const char* name, std::span<const Attribute> attributes) {
  if (!failure_.empty()) return;
  Check(xmlTextWriterStartElement(writer_, BAD_CAST name), name);
  for (const auto& attribute : attributes) {
    Check(xmlTextWriterWriteAttribute(writer_, BAD_CAST attribute.name, BAD_CAST attribute.value), attribute.name);
  }
}

void CVStateXMLFile::Writer::EndElement() {
  if (failure_.empty()) Check(xmlTextWriterEndElement(writer_), "the end of an element");
}

void CVStateXMLFile::Writer::WriteElement(const char* name, const std::string& text) {
  if (failure_.empty()) Check(xmlTextWriterWriteElement(writer_, BAD_CAST name, BAD_CAST text.c_str()), name);
}

std::optional<std::string> CVStateXMLFile::Writer::Finish() {
  if (failure_.empty()) Check(xmlTextWriterEndDocument(writer_), "the end");
  if (writer_) {
    xmlFreeTextWriter(writer_);  // flushes the rest
    writer_ = nullptr;
  }
  if (sinkFailed_ && failure_.empty()) failure_ = "the document could not be handed on";
  if (!failure_.empty()) return std::nullopt;
  return std::move(text_);
}

bool CVStateXMLFile::IsXMLText(std::string_view text) {
  auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
  auto left = static_cast<utf8proc_ssize_t>(text.size());
  while (left > 0) {
    utf8proc_int32_t code = 0;
    utf8proc_ssize_t used = utf8proc_iterate(bytes, left, &code);
    if (used <= 0) return false;
    bool allowed = code == 0x9 || code == 0xA || code == 0xD || (code >= 0x20 && code <= 0xD7FF) ||
                   (code >= 0xE000 && code <= 0xFFFD) || (code >= 0x10000 && code <= 0x10FFFF);
    if (!allowed) return false;
    bytes += used;
    left -= used;
  }
  return true;
}

std::string CVStateXMLFile::PrintableText(std::string_view text) {
  if (IsXMLText(text)) return std::string(text);
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

std::string CVStateXMLFile::Trim(std::string_view text) {
  std::size_t begin = 0;
  std::size_t end = text.size();
  while (begin < end && IsSpace(text[begin])) ++begin;
  while (end > begin && IsSpace(text[end - 1])) --end;
  return std::string(text.substr(begin, end - begin));
}

std::string CVStateXMLFile::TrimLayout(std::string_view text) {
  std::size_t begin = 0;
  while (begin < text.size() && IsSpace(text[begin])) ++begin;
  std::string_view lead = text.substr(0, begin);
  if (lead.find_first_of("\r\n") == std::string_view::npos) begin = 0;
  std::size_t end = text.size();
  while (end > begin && IsSpace(text[end - 1])) --end;
  std::string_view tail = text.substr(end);
  if (tail.find_first_of("\r\n") == std::string_view::npos) end = text.size();
  return std::string(text.substr(begin, end - begin));
}

bool CVStateXMLFile::ReadDescriptor(int fd, std::string& bytes, int* readError) {
  bytes.clear();
  struct stat info {};
  if (fstat(fd, &info) == 0 && info.st_size > 0) bytes.reserve(static_cast<std::size_t>(info.st_size));
  char buffer[65536];
  while (true) {
    ssize_t got = read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      if (readError) *readError = errno;
      bytes.clear();
      return false;
    }
    if (got == 0) return true;
    bytes.append(buffer, static_cast<std::size_t>(got));
  }
}

StateFileRead CVStateXMLFile::ReadFile(const std::string& path, std::string& bytes, std::string& error) {
  bytes.clear();
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return StateFileRead::Missing;
    error = std::strerror(errno);
    return StateFileRead::Unreadable;
  }
  int readError = 0;
  bool whole = ReadDescriptor(fd, bytes, &readError);
  close(fd);
  if (whole) return StateFileRead::Whole;
  error = std::strerror(readError);
  return StateFileRead::Unreadable;
}

std::optional<std::string> CVStateXMLFile::ReadWholeFile(const std::string& path) {
  std::string bytes;
  std::string error;
  if (ReadFile(path, bytes, error) != StateFileRead::Whole) return std::nullopt;
  return bytes;
}

bool CVStateXMLFile::Save(const std::string& path, const std::string& bytes) {
  CVStaticHelpers::CreateSettingsFolder();
  return CVStaticHelpers::WriteFileAtomically(path, bytes, 0600);
}

bool CVStateXMLFile::SaveStreamed(const std::string& path, const std::function<void(Writer&)>& write) {
  CVStaticHelpers::CreateSettingsFolder();
  return CVStaticHelpers::WriteFileAtomically(
      path,
      [&](const CVStaticHelpers::AppendBytes& append) {
        Writer writer(append);
        write(writer);
        if (writer.Finish()) return true;
        CVEventLogger::WriteMainLogMessage("CVStateXMLFile - SaveStreamed -> " + path + ": " + writer.failure());
        return false;
      },
      0600);
}

CVStateXMLFile::StoreRead CVStateXMLFile::ReadStore(const std::string& path, const Events& events) {
  StoreRead read;
  std::string text;
  std::string failure;
  read.state = ReadFile(path, text, failure);
  if (read.state == StateFileRead::Missing) {
    read.rewrite = true;
    return read;
  }
  if (read.state == StateFileRead::Unreadable) {
    read.keptCopy = KeepBrokenCopy(path);
  } else if ((read.error = Parse(text, events))) {
    read.state = StateFileRead::Broken;
    read.keptCopy = KeepBrokenCopy(path, text);
  }
  read.rewrite = read.state != StateFileRead::Whole && !read.keptCopy.empty();
  return read;
}

namespace {
std::string BrokenCopyName(const std::string& path, std::size_t key) {
  char suffix[32];
  std::snprintf(suffix, sizeof suffix, ".broken-%016zx", key);
  return path + suffix;
}
}  // namespace

std::string CVStateXMLFile::KeepBrokenCopy(const std::string& path, const std::string& bytes) {
  std::string copy = BrokenCopyName(path, std::hash<std::string>{}(bytes));
  if (access(copy.c_str(), F_OK) == 0) return copy;
  return Save(copy, bytes) ? copy : "";
}

std::string CVStateXMLFile::KeepBrokenCopy(const std::string& path) {
  // No content to name it after: the moment of the move makes the name, and the
  // move never replaces a copy already there.
  auto now = std::chrono::system_clock::now().time_since_epoch().count();
  for (int attempt = 0; attempt < 16; ++attempt) {
    std::string moment = path + "@" + std::to_string(now) + "#" + std::to_string(attempt);
    std::string target = BrokenCopyName(path, std::hash<std::string>{}(moment));
    if (renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0) return target;
    if (errno != EEXIST) return "";
  }
  return "";
}
