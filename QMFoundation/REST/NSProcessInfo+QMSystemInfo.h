// NSProcessInfo(QMSystemInfo): the operating-system version as
// "major.minor.patch", read once per process.
//
// It is the level of the interfaces the platform layer provides
// (Platform/System/ProcessInfo.h: "10.10.0"), which is what the REST
// operation compares with "10.8" to decide how it may accept a server.
#pragma once

#include <string>

const std::string& operatingSystemVersionString();
