#pragma once
// The one place where it is decided which detectors look at an object: a table of thirteen rows,
// tried in order; the first outcome other than 0 ends the dispatch. Pure: bytes, switches and a
// deadline go in, a code and texts come out. Used by the worker, by local scans, and by the fuzz
// targets.

#include <cstdint>

#include "activecontent/kvactivecontent_detectors.h"

// Runs the table over the job. reason and error are zeroed buffers of KV_REASON_SIZE bytes.
[[nodiscard]] std::int32_t kvactivecontent_dispatch(scanobject* job, kv_scan_result_t* consolidated,
                                                    char* reason, char* error, std::uint8_t flag);
