#pragma once
// The system's text of an error number.

// strerror's text, in a static buffer of 1024 bytes that belongs to the calling thread.
[[nodiscard]] const char* KVstrerror(int error);
