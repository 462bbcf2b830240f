// The GNOME Files extension as GNOME Files loads it: the built module through
// its three entry points, on files that stand in for the file manager's own,
// against the real client syncing with the local server, both real processes.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <nautilus-extension.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <thread>

#include "ChildProcess.h"
#include "E2EFixture.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

extern "C" NautilusFileInfo* (*nautilus_file_info_getter)(GFile* location, gboolean create);

namespace {

// A file as the extension sees it: its location, the emblems it is given and
// how often it is asked to be read again.
struct TestFile {
  GObject parent;
  char* path;
  std::vector<std::string>* emblems;
  int invalidated;
};
struct TestFileClass {
  GObjectClass parent;
};

GFile* TestFileLocation(NautilusFileInfo* file) { return g_file_new_for_path(((TestFile*)file)->path); }
void TestFileAddEmblem(NautilusFileInfo* file, const char* name) { ((TestFile*)file)->emblems->push_back(name); }
void TestFileInvalidate(NautilusFileInfo* file) { ++((TestFile*)file)->invalidated; }
void TestFileInterface(gpointer g_iface, gpointer) {
  auto* iface = static_cast<NautilusFileInfoInterface*>(g_iface);
  iface->get_location = TestFileLocation;
  iface->add_emblem = TestFileAddEmblem;
  iface->invalidate_extension_info = TestFileInvalidate;
}
void TestFileFinalize(GObject* object) {
  g_free(((TestFile*)object)->path);
  delete ((TestFile*)object)->emblems;
}

GType TestFileType() {
  static GType type = [] {
    GTypeInfo info{};
    info.class_size = sizeof(TestFileClass);
    info.class_init = [](gpointer klass, gpointer) { G_OBJECT_CLASS(klass)->finalize = TestFileFinalize; };
    info.instance_size = sizeof(TestFile);
    GType registered = g_type_register_static(G_TYPE_OBJECT, "CvTestFile", &info, GTypeFlags(0));
    GInterfaceInfo iface{TestFileInterface, nullptr, nullptr};
    g_type_add_interface_static(registered, NAUTILUS_TYPE_FILE_INFO, &iface);
    return registered;
  }();
  return type;
}

// The files the file manager shows, by path, for the extension's look-ups.
std::map<std::string, TestFile*> shown;

NautilusFileInfo* LookUp(GFile* location, gboolean) {
  g_autofree char* path = g_file_get_path(location);
  auto found = shown.find(path ? path : "");
  return found == shown.end() ? nullptr : NAUTILUS_FILE_INFO(g_object_ref(found->second));
}

// The module loaded as GNOME Files loads it: a GTypeModule whose load calls it in.
struct Module {
  GTypeModule parent;
};
struct ModuleClass {
  GTypeModuleClass parent;
};
void* handle;
gboolean ModuleLoad(GTypeModule* module) {
  handle = dlopen(CORVALINK_NAUTILUS_MODULE, RTLD_NOW | RTLD_LOCAL);
  if (!handle) return FALSE;
  reinterpret_cast<void (*)(GTypeModule*)>(dlsym(handle, "nautilus_module_initialize"))(module);
  return TRUE;
}
void ModuleUnload(GTypeModule*) { reinterpret_cast<void (*)()>(dlsym(handle, "nautilus_module_shutdown"))(); }

GType ModuleType() {
  static GType type = [] {
    GTypeInfo info{};
    info.class_size = sizeof(ModuleClass);
    info.class_init = [](gpointer klass, gpointer) {
      G_TYPE_MODULE_CLASS(klass)->load = ModuleLoad;
      G_TYPE_MODULE_CLASS(klass)->unload = ModuleUnload;
    };
    info.instance_size = sizeof(Module);
    return g_type_register_static(G_TYPE_TYPE_MODULE, "CvTestModule", &info, GTypeFlags(0));
  }();
  return type;
}

class NautilusExtensionTest : public E2ETest {
 protected:
  void SetUp() override {
    E2ETest::SetUp();
    StartServer();
    home_ = MakeClientHome("alice");
    // The extension finds the client's socket as in the user's session.
    for (const auto& [name, value] : ClientEnvironment(home_)) setenv(name.c_str(), value.c_str(), 1);
    nautilus_file_info_getter = LookUp;
  }
  void TearDown() override {
    for (auto& [path, file] : shown) g_object_unref(file);
    shown.clear();
    E2ETest::TearDown();
  }
  void StartClient() {
    client_ = E2ETest::StartClient(home_);
    ASSERT_TRUE(WaitForPassInStep(*client_)) << client_->Output();
  }
  // Loads the module and makes its one provider, as GNOME Files does at start.
  GObject* LoadProvider() {
    GTypeModule* module = G_TYPE_MODULE(g_object_new(ModuleType(), nullptr));
    EXPECT_TRUE(g_type_module_use(module)) << dlerror();
    const GType* types = nullptr;
    int count = 0;
    reinterpret_cast<void (*)(const GType**, int*)>(dlsym(handle, "nautilus_module_list_types"))(&types, &count);
    EXPECT_EQ(count, 1);
    return G_OBJECT(g_object_new(types[0], nullptr));
  }
  TestFile* Show(const std::string& path) {
    auto* file = (TestFile*)g_object_new(TestFileType(), nullptr);
    file->path = g_strdup(path.c_str());
    file->emblems = new std::vector<std::string>();
    shown[path] = file;
    return file;
  }
  // The emblems the extension gives the file now.
  static std::vector<std::string> Emblems(GObject* provider, TestFile* file) {
    file->emblems->clear();
    NautilusOperationHandle* operation = nullptr;
    GClosure* complete = g_cclosure_new(G_CALLBACK(+[] {}), nullptr, nullptr);
    g_closure_sink(g_closure_ref(complete));
    EXPECT_EQ(nautilus_info_provider_update_file_info(NAUTILUS_INFO_PROVIDER(provider), NAUTILUS_FILE_INFO(file),
                                                      complete, &operation),
              NAUTILUS_OPERATION_COMPLETE);  // never later: the file manager does not wait
    g_closure_unref(complete);
    return *file->emblems;
  }
  // Runs the file manager's main loop until done() or the time is up.
  template <typename Done>
  static bool RunUntil(Done done, std::chrono::seconds limit = 30s) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
      if (done()) return true;
      if (!g_main_context_iteration(nullptr, FALSE)) std::this_thread::sleep_for(2ms);
    }
    return false;
  }

  std::string home_;
  std::unique_ptr<ChildProcess> client_;
};

constexpr const char* kInStep = "corvalink-cached_circle_tick-004";
constexpr const char* kInWork = "corvalink-cached-processing-hourglass-004";

TEST_F(NautilusExtensionTest, BadgesFollowTheSyncAndSendToReachesTheServer) {
  Write(ServerDocs() / "a.txt", "one");
  StartClient();
  GObject* provider = LoadProvider();
  const std::string docs = ClientDocs(home_).string();
  TestFile* a = Show(docs + "/a.txt");
  EXPECT_EQ(Emblems(provider, a), std::vector<std::string>{kInStep});
  EXPECT_TRUE(Emblems(provider, Show(home_ + "/elsewhere.txt")).empty());
  EXPECT_EQ(Emblems(provider, Show(docs)), std::vector<std::string>{kInStep}) << "a folder has its files' state";

  // A file new on the server: no badge until the client meets it, then its
  // badges as it syncs, each change told to the file manager.
  TestFile* b = Show(docs + "/b.txt");
  EXPECT_TRUE(Emblems(provider, b).empty());
  std::vector<std::string> seen;
  Write(ServerDocs() / "b.txt", std::string(1 << 20, 'x'));
  ASSERT_TRUE(RunUntil([&] {
    if (b->invalidated == 0) return false;
    b->invalidated = 0;
    auto now = Emblems(provider, b);
    if (!now.empty() && (seen.empty() || seen.back() != now[0])) seen.push_back(now[0]);
    return !seen.empty() && seen.back() == kInStep;
  })) << client_->Output();
  EXPECT_TRUE(seen.size() == 1 || seen == (std::vector<std::string>{kInWork, kInStep})) << seen.size();

  // Send to, from the context menu of a file outside the storages.
  const std::string outside = home_ + "/report.txt";
  Write(outside, "report");
  GList* files = g_list_append(nullptr, Show(outside));
  GList* items = nautilus_menu_provider_get_file_items(NAUTILUS_MENU_PROVIDER(provider), files);
  g_list_free(files);
  ASSERT_EQ(g_list_length(items), 1u);
  NautilusMenu* submenu = nullptr;
  g_object_get(items->data, "menu", &submenu, nullptr);
  ASSERT_NE(submenu, nullptr);
  GList* storages = nautilus_menu_get_items(submenu);
  NautilusMenuItem* docsItem = nullptr;
  for (GList* l = storages; l; l = l->next) {
    g_autofree char* label = nullptr;
    g_object_get(l->data, "label", &label, nullptr);
    if (g_strcmp0(label, "Docs") == 0) docsItem = NAUTILUS_MENU_ITEM(l->data);
  }
  ASSERT_NE(docsItem, nullptr);
  nautilus_menu_item_activate(docsItem);
  EXPECT_TRUE(RunUntil([&] { return fs::exists(ServerDocs() / "report.txt"); })) << client_->Output();
  EXPECT_TRUE(client_->WaitForLine("File was sent to the root level of: Docs", 5s)) << client_->Output();
  nautilus_menu_item_list_free(storages);
  g_object_unref(submenu);
  nautilus_menu_item_list_free(items);

  // The client gone: nothing shown, nothing offered, no wait.
  client_->Signal(SIGTERM);
  EXPECT_EQ(client_->Wait(20s), 0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(Emblems(provider, a).empty());
  files = g_list_append(nullptr, shown[outside]);
  EXPECT_EQ(nautilus_menu_provider_get_file_items(NAUTILUS_MENU_PROVIDER(provider), files), nullptr);
  g_list_free(files);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  g_object_unref(provider);
}

}  // namespace
