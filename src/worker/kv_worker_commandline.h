#pragma once
// Reads the command line into the configuration: 37 long options with their short forms. Main calls
// it once, before any other thread runs (getopt keeps its position in globals).

#include "worker/kv_worker.h"

// 0, or -1 after logging what is wrong. The configuration's broker, update and network records
// exist.
[[nodiscard]] int kv_worker_parse_commandline(int argc, char** argv, kv_worker_config_t* config);
