// Address texts: parsing, validation and multi-copy.
#include "driver_internal.h"
