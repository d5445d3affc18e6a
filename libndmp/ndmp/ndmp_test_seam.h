// Test seam of the NDMP client: a port other than the fixed one and short
// time limits, so that tests run against a local server in milliseconds.
// Production code never calls these; with nothing set the client keeps its
// own port and times.
#pragma once

// 0 restores the fixed port.
void ndmp_test_set_port(unsigned short port);
// Every reply wait (whatever its limit in seconds) becomes reply_ms, and the
// wait for the server's greeting greeting_ms; 0 restores the real limits.
void ndmp_test_set_time_limits(int reply_ms, int greeting_ms);
