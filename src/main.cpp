#include "worker/kv_worker_process.h"

int main(int argc, char** argv) {
  return kv_worker_main(argc, argv);
}
