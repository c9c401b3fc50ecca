#include "model/MeshAdjacency.h"
