#pragma once
// What the business application's environment says about this installation. Reads environment
// variables: any thread, as long as nobody changes the environment.

#include <cstddef>

// The system ID: the variable SAPSYSTEMNAME (returns 1), without it the host name (returns 0); -1
// with an empty buffer when there is neither.
[[nodiscard]] int HlpGetSID(char* buffer, std::size_t length);

// The directory of the virus-scan adapter library, cut from the variable VSA_LIB before the
// library's name. 0, or -1 with the reason in message.
[[nodiscard]] int HlpEvaluateVSA_LIB(char* directory, std::size_t size, char* message,
                                     std::size_t message_size);
