// Where merlsnap finds the module and the array simulator when it is not
// told: beside its own installed location, or, for the build folder's own
// merlsnap, in the build folder. Single-threaded.
#pragma once

#include <string>

// The module to load when neither --module nor $MERLSNAP_MODULE names one.
std::string default_module_path();

// The folder that holds the simulator program and its device layer.
std::string arraysim_folder();

// Before starting a process with the simulator's device layer preloaded: a
// sanitizer build refuses to start when any library comes before its
// runtime, and the layer is built without one on purpose. Adds the option
// that lets it start to ASAN_OPTIONS; does nothing in a plain build.
void allow_preload_before_sanitizer();
