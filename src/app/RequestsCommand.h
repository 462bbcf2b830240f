#pragma once
// RequestsCommand: upload requests in a terminal, over the controllers of the
// windows:
//   corvalink-sync requests                      sessions, their people and what came in
//   corvalink-sync request create FOLDER --to EMAIL... [--days N] [--message TEXT]
//   corvalink-sync request resend|delete ID... [--yes]
//   corvalink-sync request fetch ID...           into ~/Corvalink/External user uploads
// ID is the request's number as `requests` prints it. Runs in this process.

#include <iosfwd>

#include "CommandLine.h"

class RequestsCommand {
 public:
  RequestsCommand(const CommandLine& line, std::ostream& out, std::ostream& err);
  int Run();

 private:
  int Create(const std::vector<std::string>& words);

  CommandLine line_;
  std::ostream& out_;
  std::ostream& err_;
};
