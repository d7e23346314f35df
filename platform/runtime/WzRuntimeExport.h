// Symbol visibility of the agent runtime library (libWzRuntime.so).
// Every public class and function of the runtime carries WZRT_API; the rest
// of the library is hidden.
#pragma once

#define WZRT_API __attribute__((visibility("default")))
