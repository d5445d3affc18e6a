// Storage of the message capture the NDMP tests share.
#include "tests/unit/ndmp/ndmp_test_util.h"

std::mutex ndmptest::LogCapture::mu;
std::vector<std::pair<int, std::string>> ndmptest::LogCapture::lines;
