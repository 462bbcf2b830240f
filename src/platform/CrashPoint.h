#pragma once
// CrashPoint: named places in the engine where a build with tests can end the
// process at once (SIGKILL: no destructor runs, nothing is flushed), to show
// that a crash exactly there loses no file and no queued change. The variable
// CORVALINK_CRASH_AT=NAME arms one point; it is read only in builds with tests,
// and elsewhere a point costs one call that returns.

#include <array>

// Every point by its name, for the test that walks them all.
inline constexpr std::array<const char*, 9> kCrashPoints = {
    "download-temp-written",    // a download's temporary file whole, before its rename
    "download-moved",           // the download in place, before its record
    "upload-sent",              // the upload on the server, before its record
    "server-rename-done",       // the move on the server, before the record follows it
    "server-delete-done",       // the deletion on the server, before its record goes
    "local-change-done",        // a queued local change carried out, still in the queue
    "record-journaled",         // a record in the journal, before its fold into the file
    "state-file-half-written",  // half of a state file's new copy written
    "state-file-folded",        // a state file written whole, its journal not yet restarted
};

void CrashPoint(const char* name);
