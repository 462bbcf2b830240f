#include "MyParser.h"

#include <libxml/parser.h>

#include <cstring>

#include "CVEventLogger.h"

namespace {

struct StringSearch {
  const std::string& node;
  std::string buffer;
  std::string result;
  bool found = false;
};

void OnStart(void* context, const xmlChar*, const xmlChar*, const xmlChar*, int, const xmlChar**,
             int, int, const xmlChar**) {
  // Cleared at start tags too, so that white space between elements never ends
  // up in front of a value.
  static_cast<StringSearch*>(context)->buffer.clear();
}

void OnEnd(void* context, const xmlChar* localname, const xmlChar*, const xmlChar*) {
  auto* search = static_cast<StringSearch*>(context);
  if (search->node == reinterpret_cast<const char*>(localname)) {
    search->result = search->buffer;
    search->found = true;
  }
  search->buffer.clear();
}

void OnCharacters(void* context, const xmlChar* text, int length) {
  static_cast<StringSearch*>(context)->buffer.append(reinterpret_cast<const char*>(text),
                                                     static_cast<std::size_t>(length));
}

void OnError(void* context, xmlError* error) {
  if (!error || error->level < XML_ERR_ERROR) return;
  auto* search = static_cast<StringSearch*>(context);
  std::string description = error->message ? error->message : "";
  while (!description.empty() && (description.back() == '\n' || description.back() == ' ')) {
    description.pop_back();
  }
  CVEventLogger::WriteMainLogMessage(
      "Error:MyParser - GetParsedStringForNode -> (MyParser XML parser [" + search->node +
      "]) Error " + std::to_string(error->code) + ", Description: " + description +
      ", Line: " + std::to_string(error->line) + ", Column: " + std::to_string(error->int2));
}

}  // namespace

std::string MyParser::GetParsedStringForNode(const std::string& nodeName, const std::string& dataToParse) {
  if (dataToParse.empty()) return "";
  StringSearch search{nodeName, {}, {}, false};
  xmlSAXHandler handler;
  std::memset(&handler, 0, sizeof handler);
  handler.initialized = XML_SAX2_MAGIC;
  handler.startElementNs = OnStart;
  handler.endElementNs = OnEnd;
  handler.characters = OnCharacters;
  handler.serror = OnError;
  xmlSAXUserParseMemory(&handler, &search, dataToParse.data(), static_cast<int>(dataToParse.size()));
  return search.result;
}
