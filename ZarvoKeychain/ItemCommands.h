// ItemCommands: the subcommands that add, find and delete internet and
// generic passwords. Each returns the program's exit status.
#pragma once

namespace keychaintool {

struct Command;
struct Options;

int addInternetPassword(const Command& command, const Options& options);
int findInternetPassword(const Command& command, const Options& options);
int deleteInternetPassword(const Command& command, const Options& options);

int addGenericPassword(const Command& command, const Options& options);
int findGenericPassword(const Command& command, const Options& options);
int deleteGenericPassword(const Command& command, const Options& options);

}  // namespace keychaintool
