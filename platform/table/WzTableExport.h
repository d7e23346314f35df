// Symbol visibility of the table engine library (libWzTable.so).
#pragma once

#define WZTABLE_API __attribute__((visibility("default")))
