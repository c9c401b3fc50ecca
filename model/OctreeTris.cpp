#include "model/OctreeTris.h"
