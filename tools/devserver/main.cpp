// corvalink-devserver: serves until SIGINT or SIGTERM; SIGUSR1 drops every token.

#include <csignal>
#include <iostream>
#include <mutex>

#include "CommandLine.h"
#include "DevServer.h"

int main(int argc, char** argv) {
  devserver::CommandLine line;
  try {
    line = devserver::ParseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const std::exception& e) {
    std::cerr << "corvalink-devserver: " << e.what() << "\n";
    return 2;
  }
  if (line.help) {
    std::cout << devserver::UsageText();
    return 0;
  }
  if (line.verbose) {
    line.options.log = [](const std::string& text) {
      static std::mutex mutex;
      std::lock_guard<std::mutex> lock(mutex);
      std::cerr << text << "\n";
    };
  }

  // The signals are taken by sigwait below, never by a handler on some thread.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  try {
    devserver::DevServer server(line.options);
    server.Start();
    std::cout << "corvalink-devserver listening on " << server.BaseUrl() << std::endl;
    for (const auto& storage : line.options.storages) {
      std::cout << "  " << storage.name << ": " << server.LocationOf(storage.name) << " -> "
                << server.FolderOf(storage.name).string() << std::endl;
    }
    for (;;) {
      int signal = 0;
      if (sigwait(&signals, &signal) != 0) continue;
      if (signal == SIGUSR1) {
        server.InvalidateAllTokens();
        std::cout << "all tokens invalidated" << std::endl;
        continue;
      }
      break;
    }
    server.Stop();
  } catch (const std::exception& e) {
    std::cerr << "corvalink-devserver: " << e.what() << "\n";
    return 1;
  }
  return 0;
}
