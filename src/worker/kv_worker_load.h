#pragma once
// Load of the worker threads: a sliding average over samples of how many threads are busy. Main
// thread only; the status words of the threads are read without a lock (a stale value shifts one
// sample).

#include <czmq.h>

#include <cstdint>

// Sets every sample to "none yet".
void kvctrl_initialize_load_sample_array(std::int32_t* samples, std::int32_t count);
// Takes a sample and returns the average busy percentage over the last count samples, or -1 while
// there are fewer, or no thread at all.
[[nodiscard]] std::int32_t kvworker_get_load(zlist_t* threads, std::int32_t count,
                                             std::int32_t* samples);
