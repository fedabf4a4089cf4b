/* The least an exported semaphore service can cost: a function in a shared
 * library that checks its handle and calls the POSIX primitive, built like
 * the library (PIC, no PLT). sync_bench sets it beside the raw calls, to
 * show how much of a service's cost is the crossing into a library. */
#include <semaphore.h>
#include <stddef.h>

__attribute__((visibility("default"))) int FloorSemaphorePut(sem_t** handle) {
  if (handle == NULL || *handle == NULL) return 12;
  return sem_post(*handle) == 0 ? 0 : 12;
}

__attribute__((visibility("default"))) int FloorSemaphoreTryGet(sem_t** handle) {
  if (handle == NULL || *handle == NULL) return 12;
  return sem_trywait(*handle) == 0 ? 0 : 13;
}
