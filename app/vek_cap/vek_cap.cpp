#include "vek_cap.h"
#ifndef VEK_CAP_UNIT_TEST
int main() { return 1; }
#endif
