#pragma once
// Formula injection in delimited text: a cell that begins with "=", "+", "-" or "@" and holds more
// than a number. Text that is no consistent table passes, and so do bank statements in the BAI
// format. Works on the object's bytes in place, in linear time. No state but the compiled pattern
// of each thread; any thread.

#include <cstddef>

// Delimiters outside of quoted sections. Either kind of quote opens a section that its like closes;
// a backslash hides itself and the byte behind it.
[[nodiscard]] std::size_t s_CountDelimiters(const void* bytes, std::size_t length, char delimiter);
