#include "XdgDesktop.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <vector>

namespace {
namespace fs = std::filesystem;

std::string Home() {
  const char* home = std::getenv("HOME");
  return home && *home ? home : "/";
}

std::string FromEnvironment(const char* name, const std::string& fallback) {
  const char* value = std::getenv(name);
  return value && *value == '/' ? value : fallback;
}

bool ReplaceWhole(const std::string& path, const std::string& content) {
  std::error_code error;
  fs::create_directories(fs::path(path).parent_path(), error);
  const std::string temporary = path + ".corvalink-" + std::to_string(getpid());
  {
    std::ofstream out(temporary, std::ios::trunc | std::ios::binary);
    out << content;
    if (!out.flush()) {
      fs::remove(temporary, error);
      return false;
    }
  }
  fs::rename(temporary, path, error);
  if (error) fs::remove(temporary, error);
  return !error;
}

// file:// URI of a local folder, with everything but the unreserved bytes and "/"
// percent-encoded, as the bookmark files hold it.
std::string FileUri(const std::string& folder) {
  static const char* kHex = "0123456789ABCDEF";
  std::string uri = "file://";
  for (unsigned char c : folder) {
    if (std::isalnum(c) || c == '/' || c == '-' || c == '_' || c == '.' || c == '~') {
      uri += static_cast<char>(c);
    } else {
      uri += '%';
      uri += kHex[c >> 4];
      uri += kHex[c & 15];
    }
  }
  return uri;
}

// GTK bookmarks: one "URI label" per line.
std::vector<std::string> GtkLines() {
  std::vector<std::string> lines;
  std::ifstream in(XdgDesktop::BookmarksFilePath());
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

bool GtkLabelIs(const std::string& line, const std::string& label) {
  auto space = line.find(' ');
  return space != std::string::npos && line.substr(space + 1) == label;
}

bool GtkWrite(const std::vector<std::string>& lines) {
  std::ostringstream out;
  for (const auto& line : lines) out << line << '\n';
  return ReplaceWhole(XdgDesktop::BookmarksFilePath(), out.str());
}

// KDE places: an XBEL document of <bookmark href=...><title>label</title>.
using Document = std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)>;

Document KdeRead() {
  const std::string path = XdgDesktop::KdePlacesFilePath();
  std::error_code error;
  if (!fs::is_regular_file(path, error)) return Document(nullptr, xmlFreeDoc);
  return Document(xmlReadFile(path.c_str(), nullptr, XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING),
                  xmlFreeDoc);
}

std::string TitleOf(xmlNode* bookmark) {
  for (xmlNode* child = bookmark->children; child; child = child->next) {
    if (child->type == XML_ELEMENT_NODE && xmlStrcmp(child->name, BAD_CAST "title") == 0) {
      xmlChar* text = xmlNodeGetContent(child);
      std::string title = text ? reinterpret_cast<const char*>(text) : "";
      xmlFree(text);
      return title;
    }
  }
  return "";
}

std::vector<xmlNode*> KdeBookmarks(xmlDoc* doc, const std::string& label) {
  std::vector<xmlNode*> found;
  xmlNode* root = xmlDocGetRootElement(doc);
  for (xmlNode* node = root ? root->children : nullptr; node; node = node->next) {
    if (node->type == XML_ELEMENT_NODE && xmlStrcmp(node->name, BAD_CAST "bookmark") == 0 && TitleOf(node) == label) {
      found.push_back(node);
    }
  }
  return found;
}

bool KdeWrite(xmlDoc* doc) {
  xmlChar* bytes = nullptr;
  int size = 0;
  xmlDocDumpFormatMemoryEnc(doc, &bytes, &size, "UTF-8", 1);
  std::string content(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size));
  xmlFree(bytes);
  return ReplaceWhole(XdgDesktop::KdePlacesFilePath(), content);
}

void KdeAppend(xmlDoc* doc, const std::string& folder, const std::string& label) {
  xmlNode* root = xmlDocGetRootElement(doc);
  xmlNode* bookmark = xmlNewChild(root, nullptr, BAD_CAST "bookmark", nullptr);
  xmlNewProp(bookmark, BAD_CAST "href", BAD_CAST FileUri(folder).c_str());
  xmlNewTextChild(bookmark, nullptr, BAD_CAST "title", BAD_CAST label.c_str());
  xmlNode* metadata = xmlNewChild(xmlNewChild(bookmark, nullptr, BAD_CAST "info", nullptr), nullptr,
                                  BAD_CAST "metadata", nullptr);
  xmlNewProp(metadata, BAD_CAST "owner", BAD_CAST "http://freedesktop.org");
  xmlNs* ns = xmlSearchNsByHref(doc, root, BAD_CAST "http://www.freedesktop.org/standards/desktop-bookmarks");
  xmlNode* icon = xmlNewChild(metadata, ns, BAD_CAST "icon", nullptr);
  xmlNewProp(icon, BAD_CAST "name", BAD_CAST "corvalink-sync");
}
}  // namespace

std::string XdgDesktop::ConfigHome() { return FromEnvironment("XDG_CONFIG_HOME", Home() + "/.config"); }
std::string XdgDesktop::DataHome() { return FromEnvironment("XDG_DATA_HOME", Home() + "/.local/share"); }

std::string XdgDesktop::DownloadFolder() {
  // Lines of the form XDG_DOWNLOAD_DIR="$HOME/Downloads"; only $HOME is expanded there.
  std::ifstream in(ConfigHome() + "/user-dirs.dirs");
  std::string line;
  while (std::getline(in, line)) {
    const std::string key = "XDG_DOWNLOAD_DIR=\"";
    if (line.rfind(key, 0) != 0 || line.size() < key.size() + 1 || line.back() != '"') continue;
    std::string value = line.substr(key.size(), line.size() - key.size() - 1);
    if (value.rfind("$HOME", 0) == 0) value = Home() + value.substr(5);
    // A folder set to the home itself means the user has none of its own.
    if (!value.empty() && value[0] == '/' && fs::path(value).lexically_normal() != fs::path(Home()).lexically_normal()) {
      return value;
    }
  }
  return Home() + "/Downloads";
}

std::string XdgDesktop::AutostartFilePath() { return ConfigHome() + "/autostart/corvalink-sync.desktop"; }

bool XdgDesktop::IsAutostartRegistered() {
  std::error_code error;
  return fs::is_regular_file(AutostartFilePath(), error);
}

bool XdgDesktop::RegisterAutostart(bool on, const std::string& executable) {
  std::error_code error;
  if (!on) {
    fs::remove(AutostartFilePath(), error);
    return !error;
  }
  return ReplaceWhole(AutostartFilePath(),
                      "[Desktop Entry]\nType=Application\nName=Corvalink Sync\nExec=\"" + executable +
                          "\"\nIcon=corvalink-sync\nTerminal=false\nX-GNOME-Autostart-enabled=true\n"
                          "X-GNOME-Autostart-Delay=5\n");
}

std::string XdgDesktop::BookmarksFilePath() { return ConfigHome() + "/gtk-3.0/bookmarks"; }
std::string XdgDesktop::KdePlacesFilePath() { return DataHome() + "/user-places.xbel"; }

bool XdgDesktop::HasFavourite(const std::string& label) {
  for (const auto& line : GtkLines()) {
    if (GtkLabelIs(line, label)) return true;
  }
  Document doc = KdeRead();
  return doc && !KdeBookmarks(doc.get(), label).empty();
}

bool XdgDesktop::AddFavourite(const std::string& folder, const std::string& label) {
  bool ok = true;
  auto lines = GtkLines();
  bool present = false;
  for (const auto& line : lines) present = present || GtkLabelIs(line, label);
  if (!present) {
    lines.push_back(FileUri(folder) + " " + label);
    ok = GtkWrite(lines);
  }
  if (Document doc = KdeRead(); doc && KdeBookmarks(doc.get(), label).empty()) {
    KdeAppend(doc.get(), folder, label);
    ok = KdeWrite(doc.get()) && ok;
  }
  return ok;
}

bool XdgDesktop::RemoveFavourite(const std::string& label) {
  bool ok = true;
  auto lines = GtkLines();
  std::vector<std::string> kept;
  for (const auto& line : lines) {
    if (!GtkLabelIs(line, label)) kept.push_back(line);
  }
  if (kept.size() != lines.size()) ok = GtkWrite(kept);
  if (Document doc = KdeRead()) {
    auto found = KdeBookmarks(doc.get(), label);
    for (xmlNode* node : found) {
      xmlUnlinkNode(node);
      xmlFreeNode(node);
    }
    if (!found.empty()) ok = KdeWrite(doc.get()) && ok;
  }
  return ok;
}

bool XdgDesktop::RenameFavourite(const std::string& oldLabel, const std::string& newLabel,
                                 const std::string& newFolder) {
  if (!HasFavourite(oldLabel)) return true;
  return RemoveFavourite(oldLabel) && AddFavourite(newFolder, newLabel);
}
