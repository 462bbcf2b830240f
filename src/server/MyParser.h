#pragma once
// MyParser: event-driven readers of SOAP replies: the text of one element, or the
// records of a listing.

#include <string>

class MyParser {
 public:
  // The text of the last element of that name, unescaped; "" when there is none.
  // A reply that does not parse keeps the text found before the error.
  static std::string GetParsedStringForNode(const std::string& nodeName, const std::string& dataToParse);
};
