// Where merlsnap finds the module and the array simulator when it is not
// told: beside its own installed location, or, for the build folder's own
// merlsnap, in the build folder. Single-threaded.
#pragma once

#include <string>

// The module to load when neither --module nor $MERLSNAP_MODULE names one.
std::string default_module_path();

// The folder that holds the simulator program and its device layer.
std::string arraysim_folder();
