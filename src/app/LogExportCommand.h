#pragma once
// `corvalink-sync export-logs [DEST]`: the client's logs in one zip file, in the
// download folder or at DEST (a folder or a file name). Works on the files; a
// running client goes on writing its logs meanwhile.

#include <iosfwd>

#include "CommandLine.h"

int RunLogExportCommand(const CommandLine& line, std::ostream& out, std::ostream& err);
