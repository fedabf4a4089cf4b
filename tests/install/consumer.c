/* An application outside the quorvin tree: it includes the installed headers, links the installed
 * libquorvin and calls into it. main() is not a kernel thread, so the kernel has no thread block for it. */
#include <quorvin/quorvin.h>
#include <stdio.h>

int main(void) {
  LX_THREAD* self = _lx_ThreadIdentify();
  printf("_lx_ThreadIdentify() = %p\n", (void*)self);
  return self != NULL;
}
