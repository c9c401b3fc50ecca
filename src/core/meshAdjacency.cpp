#include "qyGeom/meshAdjacency.h"
