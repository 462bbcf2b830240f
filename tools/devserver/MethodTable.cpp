#include "MethodTable.h"

#include "WireFormats.h"

namespace devserver {

const char* EndpointName(Endpoint endpoint) {
  switch (endpoint) {
    case Endpoint::Main:
      return "CorvalinkWS.asmx";
    case Endpoint::Mobile:
      return "CorvalinkMobile.asmx";
    case Endpoint::Share:
      return "share.asmx";
  }
  return "";
}

std::optional<Endpoint> EndpointForName(std::string_view fileName) {
  for (auto endpoint : {Endpoint::Main, Endpoint::Mobile, Endpoint::Share}) {
    if (EqualsIgnoreAsciiCase(fileName, EndpointName(endpoint))) return endpoint;
  }
  return std::nullopt;
}

void MethodTable::Add(Endpoint endpoint, const std::string& method, SoapMethod handler,
                      ResultForm form) {
  methods_[{endpoint, method}] = Row{std::move(handler), std::move(form)};
}

const SoapMethod* MethodTable::Find(Endpoint endpoint, const std::string& method) const {
  const auto it = methods_.find({endpoint, method});
  return it == methods_.end() ? nullptr : &it->second.handler;
}

SoapReply MethodTable::ResultReply(Endpoint endpoint, const std::string& method,
                                   std::string text) const {
  const auto it = methods_.find({endpoint, method});
  if (it == methods_.end() || !it->second.form) return SoapReply::Text(std::move(text));
  return it->second.form(std::move(text));
}

}  // namespace devserver
