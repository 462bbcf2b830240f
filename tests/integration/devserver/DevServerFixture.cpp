#include "DevServerFixture.h"

#include <arpa/inet.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdlib>
#include <fstream>

namespace fs = std::filesystem;

void DevServerTest::SetUp() {
  std::string pattern = (fs::temp_directory_path() / "devserver-test-XXXXXX").string();
  ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
  root_ = pattern;
  Restart(DefaultOptions());
}

void DevServerTest::TearDown() {
  client_.reset();
  server_.reset();
  std::error_code ec;
  fs::remove_all(root_, ec);
}

devserver::ServerOptions DevServerTest::DefaultOptions() const {
  devserver::ServerOptions options;
  options.port = 0;
  options.users = {{"alice", "secret"}, {"bob", "hunter2"}};
  auto storage = [this](const char* name, const char* folder, const char* type,
                        std::vector<std::string> users) {
    devserver::StorageConfig config;
    config.name = name;
    config.folder = root_ / "srv" / folder;
    config.type = type;
    config.users = std::move(users);
    return config;
  };
  auto docs = storage("Docs", "docs", "CIFS", {});
  auto team = storage("Team", "team", "SP", {});
  auto vault = storage("Vault", "vault", "CIFS", {"alice"});
  vault.credentials = devserver::UserAccount{"vault", "open"};
  auto bobs = storage("Bobs", "bobs", "CIFS", {"bob"});
  options.storages = {docs, team, vault, bobs};
  return options;
}

void DevServerTest::Restart(devserver::ServerOptions options) {
  client_.reset();
  server_.reset();
  server_ = std::make_unique<devserver::DevServer>(std::move(options));
  server_->Start();
  client_ = std::make_unique<httplib::Client>("127.0.0.1", server_->port());
  client_->set_decompress(false);
  client_->set_read_timeout(10, 0);
  client_->set_tcp_nodelay(true);
}

std::string DevServerTest::Escape(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&apos;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string DevServerTest::ElementText(const std::string& xml, const std::string& localName) {
  const auto texts = ElementTexts(xml, localName);
  return texts.empty() ? "<missing>" : texts.back();
}

std::vector<std::string> DevServerTest::ElementTexts(const std::string& xml,
                                                     const std::string& localName) {
  xmlDoc* doc = xmlReadMemory(xml.data(), static_cast<int>(xml.size()), "reply.xml", nullptr,
                              XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
  EXPECT_NE(doc, nullptr) << "not well-formed: " << xml;
  if (!doc) return {};
  std::vector<std::string> found;
  // Depth first, in document order.
  auto visit = [&](auto& self, xmlNode* node) -> void {
    for (; node; node = node->next) {
      if (node->type != XML_ELEMENT_NODE) continue;
      if (localName == reinterpret_cast<const char*>(node->name)) {
        xmlChar* content = xmlNodeGetContent(node);
        found.emplace_back(content ? reinterpret_cast<const char*>(content) : "");
        xmlFree(content);
      }
      self(self, node->children);
    }
  };
  visit(visit, xmlDocGetRootElement(doc));
  xmlFreeDoc(doc);
  return found;
}

SoapAnswer DevServerTest::Post(const std::string& endpointPath, const std::string& method,
                               const Params& params, const Params& rawParams,
                               const httplib::Headers& headers) {
  std::string body =
      "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\"><s:Body><" + method +
      " xmlns=\"http://tempuri.org/\" xmlns:i=\"http://www.w3.org/2001/XMLSchema-instance\">";
  auto add = [&body](const std::string& key, const std::string& value) {
    body += value.empty() ? "<" + key + "/>" : "<" + key + ">" + value + "</" + key + ">";
  };
  for (const auto& [key, value] : params) add(key, Escape(value));
  for (const auto& [key, value] : rawParams) add(key, value);
  body += "</" + method + "></s:Body></s:Envelope>";
  httplib::Headers all = headers;
  all.emplace("SOAPAction", "http://tempuri.org/" + method);
  auto res = client_->Post(endpointPath.c_str(), all, body, "text/xml; charset=utf-8");
  SoapAnswer answer;
  if (!res) {
    ADD_FAILURE() << method << ": no answer: " << httplib::to_string(res.error());
    return answer;
  }
  answer.status = res->status;
  answer.body = res->body;
  answer.contentType = res->get_header_value("Content-Type");
  answer.contentEncoding = res->get_header_value("Content-Encoding");
  return answer;
}

std::string DevServerTest::Call(const std::string& endpointPath, const std::string& method,
                                const Params& params, const Params& rawParams) {
  const auto answer = Post(endpointPath, method, params, rawParams);
  EXPECT_EQ(answer.status, 200) << method << ": " << answer.body;
  return ElementText(answer.body, method + "Result");
}

std::string DevServerTest::MainToken(const std::string& user, const std::string& password) {
  return Call("/CorvalinkWS.asmx", "Login",
              {{"Username", user},
               {"Password", password},
               {"DeviceID", "ABCDEF123456"},
               {"DeviceType", "macOSdesktop"},
               {"AppVersion", "1.0"}});
}

std::string DevServerTest::StorageToken(const std::string& storage) {
  const auto result = Call("/CorvalinkMobile.asmx", "Login",
                           {{"Username", "alice"},
                            {"Password", "secret"},
                            {"StorageUrl", server_->LocationOf(storage)},
                            {"StorageType", "CIFS"},
                            {"CVToken", MainToken()}});
  EXPECT_EQ(result.rfind("0;", 0), 0u) << result;
  return result.size() > 2 ? result.substr(2) : "";
}

httplib::Result DevServerTest::Download(const std::string& token, const std::string& path,
                                        const httplib::Headers& headers,
                                        const std::string& version) {
  httplib::Params form{{"token", token}, {"path", path}};
  if (!version.empty()) form.emplace("version", version);
  return client_->Post("/DownloadStorageFile.ashx", headers, form);
}

std::string DevServerTest::RawPost(const std::string& target, const std::string& extraHeaders,
                                   const std::string& body) {
  return RawExchange(RawRequest(target, extraHeaders, body, true));
}

std::string DevServerTest::RawRequest(const std::string& target, const std::string& extraHeaders,
                                      const std::string& body, bool close) {
  return "POST " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" +
         (close ? "Connection: close\r\n" : "") + extraHeaders +
         "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string DevServerTest::RawExchange(const std::string& bytes) {
  const int sock = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(server_->port()));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(sock, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
    ::close(sock);
    ADD_FAILURE() << "cannot connect";
    return {};
  }
  timeval timeout{5, 0};
  ::setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
  ::send(sock, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  std::string answer;
  char buffer[4096];
  for (;;) {
    const auto got = ::recv(sock, buffer, sizeof(buffer), 0);
    if (got <= 0) break;
    answer.append(buffer, static_cast<std::size_t>(got));
  }
  ::close(sock);
  return answer;
}

void DevServerTest::PutFile(const std::string& storage, const std::string& relative,
                            const std::string& content, std::int64_t modified) {
  const auto path = Folder(storage) / relative;
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << content;
  const timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(modified), 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

fs::path DevServerTest::Folder(const std::string& storage) const {
  return server_->FolderOf(storage);
}

std::vector<std::string> SplitOn(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  for (;;) {
    const auto at = text.find(separator, start);
    parts.push_back(text.substr(start, at - start));
    if (at == std::string::npos) return parts;
    start = at + 1;
  }
}

std::vector<std::string> ListingEntries(const std::string& result) {
  EXPECT_EQ(result.rfind("0;", 0), 0u) << result;
  if (result.size() <= 2) return {};
  return SplitOn(result.substr(2), ';');
}

std::string PercentDecode(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

std::string EntryPath(const std::string& entry) {
  const auto fields = SplitOn(entry, ':');
  if (fields.size() < 6) return {};
  std::string joined = fields[5];
  for (std::size_t i = 6; i < fields.size(); ++i) joined += ":" + fields[i];
  return PercentDecode(joined);
}

std::string Inflate(const std::string& gzip, bool* singleMember) {
  z_stream zs{};
  EXPECT_EQ(inflateInit2(&zs, 15 + 16), Z_OK);
  std::string out(1 << 20, '\0');
  zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(gzip.data()));
  zs.avail_in = static_cast<uInt>(gzip.size());
  zs.next_out = reinterpret_cast<Bytef*>(out.data());
  zs.avail_out = static_cast<uInt>(out.size());
  const int rc = inflate(&zs, Z_FINISH);
  out.resize(zs.total_out);
  // One member, and nothing behind it.
  if (singleMember) *singleMember = rc == Z_STREAM_END && zs.avail_in == 0;
  inflateEnd(&zs);
  return out;
}
