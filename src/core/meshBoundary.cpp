#include "qyGeom/meshBoundary.h"
