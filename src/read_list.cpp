// Cyclic read list optimisation and one-shot reads.
#include "driver_internal.h"
