#include "vxtest.h"
