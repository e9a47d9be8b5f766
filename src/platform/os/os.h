#pragma once

// The few things the platform layer asks of the operating system that Android answers one way
// and other Linux systems another. The build compiles one side: os_android.cpp or os_linux.cpp.

#include <string>

namespace emberline::os {

// A system property's value; empty when it is not set.
std::string property(const char* name);

// The running program's name, without its folder.
const char* program_name();

}  // namespace emberline::os
