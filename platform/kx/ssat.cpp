#include "kx_internal.h"
void kx::ssat_release(kx_global_t *) {}
