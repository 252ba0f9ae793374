// CredentialHelper: git's credential helper on the keychains that
// zarvo-askpass answers from.
//
// git runs the helper with one operation, after any options:
//   get    answer "username=" and "password=" for the request, or nothing;
//   store  keep the password git has just seen accepted;
//   erase  forget the password git has just seen rejected.
// Items are internet passwords under exactly the attributes the responder
// looks up for the same URL (QMInternetPasswordKeychainItem::attributesForURL),
// so either finds what the other stored. A request names the URL through
// "protocol", "host" (with ":port" when there is one), "username" and, with
// credential.useHttpPath, "path".
//
// Exit statuses: 0 when the request was handled or there was nothing to do
// (an unknown operation, a protocol the keychain has no code for, a locked
// keychain: the helper never unlocks one); 1 for unreadable input, bad usage
// or a keychain failure, each with one line on standard error. A request that
// fails changes nothing.
#pragma once

#include <functional>
#include <string>
#include <vector>

// Runs the helper with its arguments (without the program name); `readInput`
// gives the request text and is called only for an operation that has one
// (so `--help` at a terminal does not wait for input). What git is to read
// goes to `*output`, diagnostics to `*errors`.
int runCredentialHelper(const std::vector<std::string>& arguments, const std::function<std::string()>& readInput,
                        std::string* output, std::string* errors);
