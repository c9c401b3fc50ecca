#include "qyGeom/meshCompact.h"
