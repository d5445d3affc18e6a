// Small helpers shared by the gateway's own files (not for other members):
// the one-argument command formatter and the reading of the array's INQUIRY
// bytes. Thread-safe.
#pragma once

#include <stddef.h>

#include <string>

// Formats a command text that carries printf conversions meant for one
// address: "%%" becomes "%", the first "%s" becomes `arg` (unless `arg` is
// null), and any other conversion stays as literal text. Names from the array can hold a percent
// sign, and an unmatched conversion must never read a missing argument.
std::string gw_format_one(const std::string& format, const char* arg);

// `text` with each "%" doubled, so that it passes gw_format_one unchanged.
std::string gw_escape_percent(const std::string& text);

// Reads standard INQUIRY data of which `len` bytes arrived: false when the
// vendor is not the array's; otherwise the LUN number (bytes 121-122, high
// byte first) and the owning frame's IPv4 address (bytes 140-143) as text.
// Bytes beyond `len` count as zero. `lun` and `frameIp` may be null.
bool gw_decode_array_inquiry(const unsigned char* data, size_t len, unsigned int* lun,
                             std::string* frameIp);
