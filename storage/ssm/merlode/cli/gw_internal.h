// Small helpers shared by the gateway's own files (not for other members):
// system error text and the one-argument command formatter. Thread-safe.
#pragma once

#include <string>

// The system's text for an errno value; errno itself is left as it was.
std::string gw_strerror(int errnum);

// Formats a command text that carries printf conversions meant for one
// address: "%%" becomes "%", the first "%s" becomes `arg` (unless `arg` is
// null), and any other conversion stays as literal text. Names from the array can hold a percent
// sign, and an unmatched conversion must never read a missing argument.
std::string gw_format_one(const std::string& format, const char* arg);
