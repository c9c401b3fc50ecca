#include "qyGeom/meshOctree.h"
