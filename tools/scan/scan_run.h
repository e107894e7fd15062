#pragma once
// The threads of one run: each takes the next object, results come out in the order of the objects.

#include <cstddef>
#include <functional>
#include <vector>

namespace kv_scan {

// Calls work(worker, index) for every index below count on at most `workers` threads, and
// done(index) for each in ascending order on the calling thread, which waits for them. pause() is
// called while it waits, a few times a second. What work throws ends the program: it must not.
void run_in_order(std::size_t count, std::size_t workers,
                  const std::function<void(std::size_t worker, std::size_t index)>& work,
                  const std::function<void(std::size_t index)>& done,
                  const std::function<void()>& pause);

}  // namespace kv_scan
