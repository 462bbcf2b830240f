#include "AccountProbe.h"

#include "CVEventLogger.h"
#include "CVHandler.h"
#include "CVStaticHelpers.h"
#include "CVTextEscaping.h"
#include "HTTPURLHelpers.h"
#include "MyParser.h"
#include "Policy.h"
#include "ServerTrust.h"

namespace {

std::string HostAndPort(const std::string& url) {
  std::string origin = HTTPURLHelpers::Origin(url);
  auto scheme = origin.find("://");
  return scheme == std::string::npos ? url : origin.substr(scheme + 3);
}

void Log(const std::string& text) { CVEventLogger::WriteSettingsLogMessage("AccountProbe -> " + text); }

}  // namespace

std::string CertificateQuestion::Details() const {
  std::string text;
  if (keyChanged) {
    text += "Warning: " + host +
            " shows a certificate with another key than the one accepted for it before. Someone may be "
            "intercepting the connection; accept it only if the server's certificate was renewed.\n";
  }
  text += "The certificate of " + host + " is not vouched for by an authority this computer trusts (" +
          (certificate.selfSigned ? "it is self-signed" : "it comes from an authority of its own") + ").\n";
  text += "  Subject: " + certificate.subject + "\n";
  text += "  Issuer: " + certificate.issuer + "\n";
  text += "  Valid: " + certificate.validFrom + " to " + certificate.validUntil + "\n";
  text += "  SHA-256 fingerprint: " + certificate.fingerprint + "\n";
  text += "Compare the fingerprint with the one the server's administrator gave you.";
  return text;
}

std::string CertificateQuestion::Question() const { return "Trust this certificate and connect to " + host + "?"; }

bool AccountProbe::CheckCertificate(const std::string& url, const Trust& trust) {
  const std::string host = HostAndPort(url);
  if (HTTPURLHelpers::Origin(url).rfind("https://", 0) != 0) {
    notices.push_back("The connection to " + host +
                      " is not encrypted (http://): the password and the files travel in clear text.");
    return true;
  }
  std::string error;
  auto certificate = ServerCertificate::Fetch(url, error);
  if (!certificate) {
    kind = Kind::Unreachable;
    detail = "no secure connection: " + error;
    return false;
  }
  Log("certificate of " + host + ": " + certificate->subject + ", issuer " + certificate->issuer + ", SHA-256 " +
      certificate->fingerprint);
  if (certificate->TrustedBySystem()) return true;
  kind = Kind::Untrusted;
  if (!certificate->hostMatches) {
    detail = "The certificate of " + host + " was issued for another name (" + certificate->subject +
             "); Corvalink Sync does not connect to it.";
    return false;
  }
  // The key accepted before stands, whatever its dates: the user trusted that key.
  if (!trust.acceptedPin.empty() && trust.acceptedPin == certificate->publicKeyPin) {
    pin = certificate->publicKeyPin;
    return true;
  }
  if (certificate->expired || certificate->notYetValid) {
    detail = "The certificate of " + host + (certificate->expired ? " expired on " + certificate->validUntil
                                                                  : " is valid only from " + certificate->validFrom) +
             "; Corvalink Sync does not connect to it. Check the server's certificate and this computer's clock.";
    return false;
  }
  CertificateQuestion question{host, *certificate, !trust.acceptedPin.empty()};
  bool accepted = !trust.acceptedFingerprint.empty() && certificate->HasFingerprint(trust.acceptedFingerprint);
  if (!accepted && !trust.acceptedFingerprint.empty()) {
    Log("the fingerprint given beforehand is not the server's");
  }
  if (!accepted && trust.ask) accepted = trust.ask(question);
  if (!accepted) {
    detail = "The certificate of " + host + " was not accepted (SHA-256 fingerprint " + certificate->fingerprint +
             "); nothing was changed.";
    return false;
  }
  Log("the certificate of " + host + " was accepted; its key is pinned");
  pin = certificate->publicKeyPin;
  return true;
}

AccountProbe AccountProbe::Run(const std::string& url, const std::string& user, const std::string& password,
                               const Trust& trust) {
  AccountProbe probe;
  CVHandler& handler = CVHandler::Instance();
  const std::string decoded = CVTextEscaping::URLDecodedString(url);
  if (!probe.CheckCertificate(decoded, trust)) return probe;
  // This thread's calls to the address trust what the step above accepted.
  ServerTrust::ScopedPin scopedPin(decoded, probe.pin);
  auto login = handler.TestLogin(decoded, user, password);
  if (login.kind == CVHandler::LoginTest::Kind::Refused) {
    probe.kind = Kind::Refused;
    probe.detail = login.text;
    return probe;
  }
  if (login.kind == CVHandler::LoginTest::Kind::Unreachable) {
    probe.kind = Kind::Unreachable;
    probe.detail = login.text;
    return probe;
  }
  const std::string wsUrl = CVStaticHelpers::GenerateWSUrls(decoded)["wsUrlRes"];
  probe.devStatus = handler.GetDeviceStatusWithToken(login.text, wsUrl);
  Log("device status: " + probe.devStatus);
  if (probe.devStatus.empty()) {
    probe.kind = Kind::Unreachable;
    probe.detail = "no device status";
    return probe;
  }
  if (probe.devStatus == "-3;Incorrect format Token" || probe.devStatus.rfind("-1;", 0) == 0) {
    probe.kind = Kind::AccessRefused;
    return probe;
  }
  if (probe.devStatus != "1;A") {
    probe.kind = Kind::DeviceRefused;
    return probe;
  }
  auto reply = handler.GetDefaultConfigForNewSettings(login.text, wsUrl);
  probe.policy = reply ? MyParser::GetParsedStringForNode("GetDefaultSettings2Result", *reply) : "";
  if (Policy::IsNoPolicy(probe.policy)) {
    probe.kind = Kind::NoPolicy;
    probe.detail = probe.policy.empty() ? "the policy is empty" : probe.policy;
    probe.policy.clear();
    return probe;
  }
  probe.kind = Kind::Ok;
  return probe;
}

std::string AccountProbe::DeviceRefusedText(const std::string& status) {
  return "This device may not sync with the server (device status \"" + status +
         "\"). Please ask your administrator.";
}
