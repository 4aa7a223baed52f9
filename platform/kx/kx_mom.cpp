#include "kx_internal.h"
void kx::mom_release(kx_global_t *) {}
