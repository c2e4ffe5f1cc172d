/// A test program's system log: a program that calls RecordedLog() has a syslog(3) that records.
#pragma once

#include <string>
#include <vector>

/// The lines logged so far, as formatted; one of another priority than LOG_ERR begins with "<PRIORITY>".
std::vector<std::string>& RecordedLog();
