#include "model/Octree.h"
