#pragma once
// Whole buffers to and from files. Any thread.

#include <cstddef>

// Writes exactly length bytes to the file, created or cut first. 0, or -1 with errno.
[[nodiscard]] int kvhlp_dump_buffer_to_file(const void* buffer, std::size_t length,
                                            const char* path);

// Reads exactly length bytes from the file's beginning. 0, or -1 with errno (EIO for a file that is
// shorter).
[[nodiscard]] int kvhlp_read_buffer_from_file(void* buffer, std::size_t length, const char* path);
