#include "qyGeom/meshComponents.h"
