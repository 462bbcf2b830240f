#include "SoapEnvelope.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <memory>

#include "WireFormats.h"

namespace devserver {
namespace {

constexpr const char* kEnvelopeOpen =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>"
    "<soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
    "xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\"><soap:Body>";
constexpr const char* kEnvelopeClose = "</soap:Body></soap:Envelope>";
constexpr const char* kServiceNamespace = "http://tempuri.org/";

struct DocFree {
  void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};

std::string_view LocalName(const xmlNode* node) {
  return reinterpret_cast<const char*>(node->name);
}

const xmlNode* FirstElement(const xmlNode* node) {
  for (; node; node = node->next) {
    if (node->type == XML_ELEMENT_NODE) return node;
  }
  return nullptr;
}

// Text and CDATA directly under the node; white space between child elements
// is not part of a value that has children.
std::string OwnText(const xmlNode* node, bool hasChildren) {
  std::string text;
  for (const xmlNode* child = node->children; child; child = child->next) {
    if ((child->type == XML_TEXT_NODE || child->type == XML_CDATA_SECTION_NODE) && child->content) {
      text += reinterpret_cast<const char*>(child->content);
    }
  }
  if (hasChildren && TrimSpaces(text).empty()) text.clear();
  return text;
}

std::string AllText(const xmlNode* node) {
  xmlChar* content = xmlNodeGetContent(node);
  std::string text = content ? reinterpret_cast<const char*>(content) : "";
  xmlFree(content);
  return text;
}

SoapNode TreeOf(const xmlNode* node) {
  SoapNode tree{std::string(LocalName(node)), AllText(node), {}};
  for (const xmlNode* child = FirstElement(node->children); child; child = FirstElement(child->next)) {
    tree.children.push_back(TreeOf(child));
  }
  return tree;
}

}  // namespace

const SoapNode* SoapNode::Child(const std::string& childName) const {
  for (const auto& child : children) {
    if (child.name == childName) return &child;
  }
  return nullptr;
}

std::string SoapNode::ChildText(const std::string& childName) const {
  const auto* child = Child(childName);
  return child ? child->text : std::string();
}

std::string SoapCall::Text(const std::string& name) const {
  const auto* value = Find(name);
  return value ? value->text : std::string();
}

const SoapValue* SoapCall::Find(const std::string& name) const {
  const auto it = params.find(name);
  return it == params.end() ? nullptr : &it->second;
}

SoapCall ParseSoapRequest(std::string_view body) {
  // No network, no entity expansion, no DTD loading: a request is data only.
  const int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;
  std::unique_ptr<xmlDoc, DocFree> doc(
      xmlReadMemory(body.data(), static_cast<int>(body.size()), "request.xml", nullptr, options));
  if (!doc) throw SoapParseError{"The request is not well-formed XML."};
  if (doc->intSubset || doc->extSubset) throw SoapParseError{"A DTD is not allowed in a request."};
  const xmlNode* envelope = xmlDocGetRootElement(doc.get());
  if (!envelope || LocalName(envelope) != "Envelope") {
    throw SoapParseError{"The root element is not an Envelope."};
  }
  const xmlNode* bodyNode = nullptr;
  for (const xmlNode* child = FirstElement(envelope->children); child;
       child = FirstElement(child->next)) {
    if (LocalName(child) == "Body") {
      bodyNode = child;
      break;
    }
  }
  if (!bodyNode) throw SoapParseError{"The Envelope has no Body."};
  const xmlNode* method = FirstElement(bodyNode->children);
  if (!method) throw SoapParseError{"The Body is empty."};

  SoapCall call;
  call.method = std::string(LocalName(method));
  for (const xmlNode* param = FirstElement(method->children); param;
       param = FirstElement(param->next)) {
    SoapValue value;
    for (const xmlNode* child = FirstElement(param->children); child;
         child = FirstElement(child->next)) {
      value.children.emplace_back(std::string(LocalName(child)), AllText(child));
    }
    value.text = OwnText(param, !value.children.empty());
    value.tree = TreeOf(param);
    // The first of two equal names wins, as a dictionary on the other side would keep one.
    call.params.emplace(std::string(LocalName(param)), std::move(value));
  }
  return call;
}

SoapReply SoapReply::Text(std::string text) {
  SoapReply reply;
  reply.text = std::move(text);
  return reply;
}

SoapReply SoapReply::Xml(std::string rawXml, std::string element) {
  SoapReply reply;
  reply.rawXml = std::move(rawXml);
  reply.element = std::move(element);
  return reply;
}

SoapReply SoapReply::ClientFault(std::string message) {
  SoapReply reply;
  reply.isFault = true;
  reply.faultCode = "soap:Client";
  reply.faultString = std::move(message);
  return reply;
}

SoapReply SoapReply::ServerFault(std::string message) {
  SoapReply reply;
  reply.isFault = true;
  reply.faultCode = "soap:Server";
  reply.faultString = std::move(message);
  return reply;
}

std::string BuildSoapReply(const std::string& method, const SoapReply& reply) {
  std::string out = kEnvelopeOpen;
  if (reply.isFault) {
    out += "<soap:Fault><faultcode>" + reply.faultCode + "</faultcode><faultstring>" +
           EscapeXmlText(reply.faultString) + "</faultstring><detail /></soap:Fault>";
  } else {
    const std::string element = reply.element.empty() ? method + "Result" : reply.element;
    out += "<" + method + "Response xmlns=\"" + kServiceNamespace + "\">";
    out += "<" + element + ">";
    out += reply.rawXml.empty() ? EscapeXmlText(reply.text) : reply.rawXml;
    out += "</" + element + ">";
    out += "</" + method + "Response>";
  }
  out += kEnvelopeClose;
  return out;
}

int SoapReplyStatus(const SoapReply& reply) { return reply.isFault ? 500 : 200; }

}  // namespace devserver
