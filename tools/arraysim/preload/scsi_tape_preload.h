// Glue between the preload layer's open/ioctl/close and the fake tape
// drives and changers of the state folder. Thread-safe.
#pragma once

#include <string>

namespace arraysim {
namespace tape {

// Takes fd as a tape device when the tape state knows `name`.
bool preload_adopt(int fd, const std::string& name);
bool preload_owns(int fd, std::string& name);
void preload_forget(int fd);
// One ioctl as a transaction on the state folder's tape state.
int preload_ioctl(const std::string& name, unsigned long req, void* arg);

}  // namespace tape
}  // namespace arraysim
