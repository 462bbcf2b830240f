#pragma once
// The result strings the server's methods share. The client tests them by their
// prefix with its ";", and "-6;File/Folder not found;" as a whole.

namespace devserver {

// A bad, unknown or dropped token, whatever the call: the client drops its token
// and repeats once on "-1;".
inline constexpr const char* kInvalidToken = "-1;Invalid token";
inline constexpr const char* kLoginFailed = "-1;Login failed";
inline constexpr const char* kAccountLocked = "-1;Account locked";
inline constexpr const char* kStorageLoginFailed = "-2;Login failed";
inline constexpr const char* kNotFound = "-6;File/Folder not found;";
inline constexpr const char* kRestricted = "-7;Access denied by IP restriction";
inline constexpr const char* kListingFailed = "-100;The folder could not be read";
inline constexpr const char* kUploadRequestNotFound = "-100;Upload request not found";
inline constexpr const char* kDone = "0;";
// "Error Code - 183" is what the client looks for: a rename's target exists.
inline constexpr const char* kTargetExists =
    "-6;Error Code - 183 Cannot create a file when that file already exists;";
// A name a Windows share refuses (a storage kept with share names).
inline constexpr const char* kNameRefused =
    "-5;Error Code - 123 The filename, directory name, or volume label syntax is incorrect.;";
// A part upload's finish that cannot make the whole file from what it has.
inline constexpr const char* kPartsMissing = "-5;Parts missing";
// SwitchToVersion's answer for a version it does not have; no ";" behind it.
inline constexpr const char* kVersionNotFound = "2";

}  // namespace devserver
