#pragma once
// DevServerTest: a corvalink-devserver in-process on a free loopback port, with
// three storages in a fresh temporary folder, and a plain HTTP client that
// builds SOAP envelopes by hand, as a client of the wire would.
//   Docs  CIFS  \\devserver\Docs\       every user
//   Team  SP    https://devserver/Team/ every user
//   Vault CIFS  \\devserver\Vault\      alice only, its own login vault:open
//   Bobs  CIFS  \\devserver\Bobs\       bob only

#include <gtest/gtest.h>
#include <httplib.h>

#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "DevServer.h"

struct SoapAnswer {
  int status = 0;
  std::string body;
  std::string contentType;
  std::string contentEncoding;
};

using Params = std::vector<std::pair<std::string, std::string>>;

class DevServerTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Makes a server with the given options over this test's folder.
  void Restart(devserver::ServerOptions options);
  devserver::ServerOptions DefaultOptions() const;

  // The text of an element of a reply (unescaped by a real XML parser), or
  // "<missing>"; fails the test when the reply is not well-formed.
  static std::string ElementText(const std::string& xml, const std::string& localName);
  // The texts of every element of that name, in document order.
  static std::vector<std::string> ElementTexts(const std::string& xml,
                                               const std::string& localName);
  // Escapes a value for an envelope, once.
  static std::string Escape(const std::string& text);

  // Values of `params` are escaped here; values of `rawParams` go in as they are.
  SoapAnswer Post(const std::string& endpointPath, const std::string& method, const Params& params,
                  const Params& rawParams = {}, const httplib::Headers& headers = {});
  // The text of <methodResult>; fails when the status is not 200.
  std::string Call(const std::string& endpointPath, const std::string& method, const Params& params,
                   const Params& rawParams = {});

  std::string MainToken(const std::string& user = "alice", const std::string& password = "secret");
  std::string StorageToken(const std::string& storage);

  httplib::Result Download(const std::string& token, const std::string& path,
                           const httplib::Headers& headers = {}, const std::string& version = {});
  // A request written byte for byte, for what httplib's client will not send
  // (an empty Range); the whole answer until the server closes.
  std::string RawPost(const std::string& target, const std::string& extraHeaders,
                      const std::string& body);
  static std::string RawRequest(const std::string& target, const std::string& extraHeaders,
                                const std::string& body, bool close);
  // Sends the bytes on one connection; everything that comes back until it closes.
  std::string RawExchange(const std::string& bytes);

  // Writes a file into a storage's folder directly, as a test changes the server.
  void PutFile(const std::string& storage, const std::string& relative, const std::string& content,
               std::int64_t modified = 1'600'000'000);
  std::filesystem::path Folder(const std::string& storage) const;

  std::filesystem::path root_;
  std::unique_ptr<devserver::DevServer> server_;
  std::unique_ptr<httplib::Client> client_;
};

// The ";" separated entries after "0;" of a listing.
std::vector<std::string> ListingEntries(const std::string& result);
std::string PercentDecode(const std::string& text);
// The server path of an entry: fields 5 and up, joined with ":", decoded.
std::string EntryPath(const std::string& entry);
std::vector<std::string> SplitOn(const std::string& text, char separator);
std::string Inflate(const std::string& gzip, bool* singleMember = nullptr);
