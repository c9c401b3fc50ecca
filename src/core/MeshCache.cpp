#include "qyGeom/MeshCache.h"
