#pragma once
// `corvalink-sync activity [--page N]`: the activity window's two lists in a
// terminal: a page of the account's usage history (from 0) and the files the
// sync newly created or updated here that nobody has marked seen. Reads only.

#include <iosfwd>

#include "CommandLine.h"

int RunActivityCommand(const CommandLine& line, std::ostream& out, std::ostream& err);
