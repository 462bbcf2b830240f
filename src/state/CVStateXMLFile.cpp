#include "CVStateXMLFile.h"

#include <libxml/parser.h>
#include <libxml/xmlerror.h>
#include <utf8proc.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <exception>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>

#include "CVEventLogger.h"
#include "CVStaticHelpers.h"

namespace {

void EnsureLibraryReady() {
  static std::once_flag once;
  std::call_once(once, [] { xmlInitParser(); });
}

struct ParseState {
  const CVStateXMLFile::Events* events = nullptr;
  xmlParserCtxtPtr context = nullptr;
  std::string text;
  std::optional<CVStateXMLFile::ParseError> error;
};

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
                    const xmlChar**, int, int, const xmlChar**) {
  auto* state = static_cast<ParseState*>(context);
  Guarded(state, [&] {
    state->text.clear();
    if (state->events->startElement) state->events->startElement(reinterpret_cast<const char*>(localName));
  });
}

void OnEndElement(void* context, const xmlChar* localName, const xmlChar*, const xmlChar*) {
  auto* state = static_cast<ParseState*>(context);
  Guarded(state, [&] {
    std::string text;
    text.swap(state->text);
    if (state->events->endElement) state->events->endElement(reinterpret_cast<const char*>(localName), text);
  });
}

void OnCharacters(void* context, const xmlChar* characters, int length) {
  auto* state = static_cast<ParseState*>(context);
  Guarded(state, [&] {
    state->text.append(reinterpret_cast<const char*>(characters), static_cast<std::size_t>(length));
  });
}

#if LIBXML_VERSION >= 21200
void OnError(void* context, const xmlError* error) {
#else
void OnError(void* context, xmlErrorPtr error) {
#endif
  auto* state = static_cast<ParseState*>(context);
  if (!error || error->level < XML_ERR_ERROR || state->error) return;
  std::string description = error->message ? error->message : "";
  while (!description.empty() && (description.back() == '\n' || description.back() == '\r'))
    description.pop_back();
  state->error = CVStateXMLFile::ParseError{error->code, description, error->line, error->int2};
}

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

}  // namespace

std::optional<CVStateXMLFile::ParseError> CVStateXMLFile::Parse(std::string_view text, const Events& events) {
  EnsureLibraryReady();
  xmlSAXHandler handler{};
  // Only the callbacks we need: no tree, no entity loading, no DTD.
  handler.initialized = XML_SAX2_MAGIC;
  handler.startElementNs = OnStartElement;
  handler.endElementNs = OnEndElement;
  handler.characters = OnCharacters;
  handler.cdataBlock = OnCharacters;
  handler.serror = OnError;

  ParseState state;
  state.events = &events;
  xmlParserCtxtPtr context = xmlCreatePushParserCtxt(&handler, &state, nullptr, 0, nullptr);
  if (!context) return ParseError{-1, "the parser could not be created", 0, 0};
  state.context = context;
  xmlCtxtUseOptions(context, XML_PARSE_NONET);

  constexpr std::size_t kChunk = 1 << 20;
  std::size_t offset = 0;
  while (offset < text.size() && !state.error) {
    std::size_t length = std::min(kChunk, text.size() - offset);
    xmlParseChunk(context, text.data() + offset, static_cast<int>(length), 0);
    offset += length;
  }
  if (!state.error) xmlParseChunk(context, nullptr, 0, 1);
  if (!state.error && !context->wellFormed) {
    const xmlError* last = xmlCtxtGetLastError(context);
    std::string description = last && last->message ? last->message : "the document is not well formed";
    while (!description.empty() && description.back() == '\n') description.pop_back();
    state.error =
        ParseError{last ? last->code : -1, description, last ? last->line : 0, last ? last->int2 : 0};
  }
  xmlFreeParserCtxt(context);
  return state.error;
}

CVStateXMLFile::Writer::Writer() {
  EnsureLibraryReady();
  buffer_ = xmlBufferCreate();
  if (buffer_) writer_ = xmlNewTextWriterMemory(buffer_, 0);
  good_ = writer_ != nullptr && xmlTextWriterSetIndent(writer_, 1) == 0 &&
          xmlTextWriterSetIndentString(writer_, BAD_CAST "  ") == 0 &&
          xmlTextWriterStartDocument(writer_, nullptr, "UTF-8", nullptr) >= 0;
}

CVStateXMLFile::Writer::~Writer() {
  if (writer_) xmlFreeTextWriter(writer_);
  if (buffer_) xmlBufferFree(buffer_);
}

void CVStateXMLFile::Writer::StartElement(const char* name) {
  if (good_) good_ = xmlTextWriterStartElement(writer_, BAD_CAST name) >= 0;
}

void CVStateXMLFile::Writer::EndElement() {
  if (good_) good_ = xmlTextWriterEndElement(writer_) >= 0;
}

void CVStateXMLFile::Writer::WriteElement(const char* name, const std::string& text) {
  if (good_) good_ = xmlTextWriterWriteElement(writer_, BAD_CAST name, BAD_CAST text.c_str()) >= 0;
}

std::optional<std::string> CVStateXMLFile::Writer::Finish() {
  if (good_) good_ = xmlTextWriterEndDocument(writer_) >= 0;
  if (writer_) {
    xmlFreeTextWriter(writer_);  // flushes into the buffer
    writer_ = nullptr;
  }
  if (!good_ || !buffer_) return std::nullopt;
  return std::string(reinterpret_cast<const char*>(xmlBufferContent(buffer_)),
                     static_cast<std::size_t>(xmlBufferLength(buffer_)));
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

std::optional<std::string> CVStateXMLFile::ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream bytes;
  bytes << in.rdbuf();
  if (in.bad()) return std::nullopt;
  return bytes.str();
}

bool CVStateXMLFile::Save(const std::string& path, const std::string& bytes) {
  return CVStaticHelpers::WriteFileAtomically(path, bytes, 0600);
}

std::string CVStateXMLFile::MoveDamagedAside(const std::string& path) {
  std::time_t now = std::time(nullptr);
  std::tm parts{};
  localtime_r(&now, &parts);
  char stamp[32];
  std::size_t length = std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", &parts);
  std::string base = path + ".damaged-" + std::string(stamp, length);
  std::string target = base;
  std::error_code error;
  for (int n = 2; std::filesystem::exists(target, error); ++n) target = base + "-" + std::to_string(n);
  if (std::rename(path.c_str(), target.c_str()) != 0) return "";
  return target;
}
