#include "SharedStorageParser.h"

#include <exception>
#include <optional>
#include <stdexcept>

#include "CVEventLogger.h"
#include "CVStateXMLFile.h"
#include "MyParser.h"

namespace {

constexpr const char* kClass = "SharedStorageParser";

struct Reader {
  std::vector<SharedStorageParser::Item> items;
  std::optional<WSStorage> storage;
  std::string resultCode, faultcode, faultstring;

  void Start(const std::string& name) {
    if (name == "SharedStorage") storage.emplace();
  }

  void End(const std::string& name, const std::string& text) {
    if (name == "string") {
      items.emplace_back(text);
    } else if (name == "ResultCode") {
      resultCode = text;
    } else if (name == "faultcode") {
      faultcode = text;
    } else if (name == "faultstring") {
      faultstring = text;
    } else if (storage) {
      if (name == "SharedStorageId") {
        storage->SharedStorageId = text;
      } else if (name == "StorageUrl") {
        storage->Path = text;
      } else if (name == "StorageName") {
        storage->Name = text;
      } else if (name == "StorageType") {
        storage->Type = text;
      } else if (name == "SharedStorage") {
        items.emplace_back(std::move(*storage));
        storage.reset();
      }
    }
  }
};

}  // namespace

std::vector<SharedStorageParser::Item> SharedStorageParser::GetParsedArrayForNode(
    const std::string& nodeName, const std::string& dataToParse) {
  ResultCode.clear();
  faultcode.clear();
  faultstring.clear();
  try {
    Reader reader;
    std::optional<std::string> failure;
    CVStateXMLFile::Events events;
    events.startElement = [&](const std::string& name) { reader.Start(name); };
    events.endElement = [&](const std::string& name, const std::string& text) {
      try {
        reader.End(name, text);
      } catch (const std::exception& e) {
        if (!failure) failure = e.what();
        throw;
      }
    };
    auto error = dataToParse.empty() ? std::nullopt : CVStateXMLFile::Parse(dataToParse, events);
    if (failure) throw std::runtime_error(*failure);
    if (error) MyParser::LogParseError(kClass, "GetParsedArrayForNode", nodeName, *error);

    ResultCode = reader.resultCode;
    faultcode = reader.faultcode;
    faultstring = reader.faultstring;
    std::string code = CVStateXMLFile::Trim(ResultCode);
    if (reader.items.empty() && (code == "-7" || code == "-100" || code == "-1")) {
      reader.items.emplace_back(code);
    }
    return std::move(reader.items);
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "GetParsedArrayForNode", failure.what());
    CVEventLogger::CommonLogWriting("Maybe errNon 200", "");
    return {};
  }
}

std::vector<WSStorage> SharedStorageParser::StoragesOf(const std::vector<Item>& items) {
  std::vector<WSStorage> storages;
  for (const auto& item : items) {
    if (const auto* storage = std::get_if<WSStorage>(&item)) storages.push_back(*storage);
  }
  return storages;
}
