#pragma once
// What every fuzzing target shares: a home folder of its own (state files and
// anything else a parser writes stay there, removed at exit), logging and the
// engine's std::cerr lines off (the parsers run millions of times), the input as
// text, and findings kept in the build's runs/NAME/findings/ when the command line
// names no place. FuzzSupport.cpp holds libFuzzer's LLVMFuzzerInitialize, which
// prepares all this before the first input.

#include <cstddef>
#include <cstdint>
#include <string>

#include "CVSharepoint.h"

namespace fuzz {

// The root folder of the storages (~/Corvalink) and the settings folder in it.
std::string Root();
std::string Settings();
std::string Text(const std::uint8_t* data, std::size_t size);
// A storage record of the account, as the parsers are given it.
CVSharepoint Storage(const char* name, const char* url, const char* type);
// Writes a file of the settings folder, replacing it; "@ROOT@" in bytes stands
// for Root(), so that seeds can name paths inside this run's storages.
void WriteSettingsFile(const std::string& name, std::string bytes);
// Empties the settings folder (a reader keeps the bytes of a broken file beside
// it, which would pile up).
void ClearSettings();

}  // namespace fuzz
